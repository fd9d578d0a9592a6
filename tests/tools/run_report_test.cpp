#include "tools/upgradectl/run_report.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/temp_dir.h"
#include "tools/upgradectl/exit_code.h"
#include "upgrade/upgrade_api.h"

namespace {

using kavro::agent::RunRecord;
using upgradectl::renderRunReport;

constexpr const char* kMpu = "aUpgrade_MPU";
constexpr const char* kMcu = "aUpgrade_MCU";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++found;
    }
    return found;
}

// What a reader is told: without the style sheet and the markup.
std::string wordsOf(const std::string& page) {
    const std::string body = page.substr(page.find("<body>"));
    return std::regex_replace(std::regex_replace(body, std::regex("<[^>]*>"), " "), std::regex(" +"), " ");
}

// The element that begins with this tag, up to the next such tag or the end of the page.
std::string partFrom(const std::string& page, const std::string& begin, const std::string& end) {
    const std::size_t from = page.find(begin);
    return from == std::string::npos ? "" : page.substr(from, page.find(end, from) - from);
}

std::string section(const std::string& page, const std::string& title) {
    return partFrom(page, ">" + title + "</h2>", "<h2");
}

std::string stageRow(const std::string& page, const std::string& stage) {
    return partFrom(section(page, "Stages"), ">" + stage + "</span>", "</tr>");
}

// As a run on a device is: both processors are flashed, the stages are fast.
RunRecord goodRun() {
    RunRecord run;
    run.command = "install";
    run.package = "/firmware/release.pkg";
    run.begun = 1'000'000'000;  // 2001-09-09 01:46:40 UTC
    run.seconds = 5;
    run.stages = {{UPGRADE_STAGE_IDLE, 0},
                  {UPGRADE_STAGE_INIT, 0.1},
                  {UPGRADE_STAGE_START, 1.1},
                  {UPGRADE_STAGE_PROC_PKG_DONE, 1.2},
                  {UPGRADE_STAGE_VERIFY_PKG_DONE, 1.3},
                  {UPGRADE_STAGE_SET_FLAG_DONE, 1.4},
                  {UPGRADE_STAGE_FLASHING_START, 2},
                  {UPGRADE_STAGE_BACKUP_PACKAGE, 4},
                  {UPGRADE_STAGE_DONE, 4.5}};
    run.states = {
        {UPGRADE_STATE_START, 0.2}, {UPGRADE_STATE_INPROGRESS_MPU, 1.1}, {UPGRADE_STATE_FINISH, 4.4}};
    run.log = {{1.4, 3, "upgradectl", "upgrade flag mpu[1], mcu[1], bld[1];"},
               {2.1, 3, kMcu, "upgrade_mcu_local +++"},
               {2.2, 2, kMcu, "&&&&& upgrade [stage FLASHING_START], [result INPROGRESS_MCU] &&&&&"},
               {3.0, 3, kMpu, "upgrade_mpu: ret is 0;"},
               {3.2, 3, kMcu, "UPGRADE_Mcu start ..."},
               {3.7, 3, kMcu, "upgrade_mcu_local ---, ret is 0"}};
    run.versionBefore = "V01.104.007.002";
    run.versionAfter = "V01.105.007.003";
    run.packageVersion = "V01.105.007.003";
    run.components = {{"Image", 70000, std::string(64, 'a'), ""}, {"ext4", 300000, std::string(64, 'b'), ""}};
    run.outcome = "installed '/firmware/release.pkg', it awaits activation";
    run.nextStep = "upgradectl activate, then restart the device";
    return run;
}

void failWith(RunRecord& run, int exitCode) {
    run.error.reset();
    if (exitCode != 0) {
        run.error.emplace().code = static_cast<kavro::ErrorCode>(exitCode);
    }
}

// The microcontroller refused its firmware.
RunRecord failedRun() {
    RunRecord run = goodRun();
    failWith(run, 4);
    run.outcome = "the package could not be flashed";
    run.stages.resize(7);
    run.stages.push_back({UPGRADE_STAGE_IDLE, 4.9});
    run.versionAfter = "V01.105.-01.003";
    run.log.back() = {3.6, 1, kMcu, "UpgradeMcu: it was refused"};
    run.log.push_back({3.7, 3, kMcu, "upgrade_mcu_local ---, ret is -1"});
    return run;
}

RunRecord hostileRun() {
    RunRecord run = failedRun();
    const std::string hostile =
        "</title></style><script>alert(1)</script>\"'&\x1b[2J\n\xff\xe2\x80\xae\xef\xbf\xbe";
    run.command = run.package = run.outcome = run.nextStep = hostile;
    run.packageVersion = run.versionBefore = run.versionAfter = hostile;
    for (kavro::agent::LoggedLine& line : run.log) {
        line.thread += hostile;
        line.text += hostile;
    }
    run.components = {{hostile, 1, hostile, hostile}};
    return run;
}

// Nothing when each tag of the page is closed in its order and each attribute is quoted; else what is wrong.
std::string faultOfMarkup(const std::string& page) {
    static const std::regex kTag(R"(<(/?)([a-z][a-z0-9]*)((?: [a-zA-Z-]+="[^"<]*")*)(/?)>)");
    std::vector<std::string> open;
    for (std::size_t at = page.find('<', 1); at != std::string::npos; at = page.find('<', at + 1)) {
        std::smatch tag;
        if (!std::regex_search(page.begin() + static_cast<std::ptrdiff_t>(at), page.end(), tag, kTag,
                               std::regex_constants::match_continuous)) {
            return "no tag: " + page.substr(at, 40);
        }
        if (tag[1].length() == 0 && tag[4].length() == 0) {
            open.push_back(tag[2]);
        } else if (tag[1].length() != 0) {
            if (open.empty() || open.back() != tag[2]) {
                return "closed, not open: " + tag.str();
            }
            open.pop_back();
        }
    }
    return open.empty() ? "" : "not closed: " + open.back();
}

TEST(RunReport, tells_outcome_next_step_begin_and_duration_in_words) {
    const std::string words = wordsOf(renderRunReport(goodRun()));
    EXPECT_TRUE(
        contains(words, "Succeeded Installed &#39;/firmware/release.pkg&#39;, it awaits activation."));
    EXPECT_TRUE(contains(words, "Next: upgradectl activate, then restart the device"));
    EXPECT_TRUE(contains(words, "2001-09-09 01:46:40 UTC"));
    EXPECT_TRUE(contains(words, "Duration 5.0 s"));
    EXPECT_TRUE(contains(words, "No errors were logged."));
}

TEST(RunReport, leads_to_its_own_errors_and_not_to_the_lines_of_a_terminal) {
    RunRecord run = failedRun();
    run.nextStep = "mend what the device: lines say, then try again";
    EXPECT_TRUE(
        contains(wordsOf(renderRunReport(run)), "Next: mend what the errors below say, then try again"));
}

TEST(RunReport, names_each_kind_of_outcome) {
    const std::pair<int, const char*> kinds[] = {{0, ">Succeeded</h1>"},
                                                 {1, ">Failed</h1>"},
                                                 {3, ">Refused</h1>"},
                                                 {4, ">Failed</h1>"},
                                                 {5, ">Given up</h1>"}};
    for (const auto& [exitCode, word] : kinds) {
        RunRecord run = goodRun();
        failWith(run, exitCode);
        EXPECT_TRUE(contains(renderRunReport(run), word)) << exitCode;
    }
}

TEST(RunReport, shows_every_stage_once_with_its_time_and_the_expected_one) {
    const std::string page = renderRunReport(goodRun());
    for (const COMMON_YR::MapKeyString* row = UpgradeProc::stageNames; row->key != COMMON_YR::kMapKeyEnd;
         ++row) {
        EXPECT_EQ(count(section(page, "Stages"), std::string(">") + row->text + "</span>"), 1U) << row->text;
    }
    EXPECT_TRUE(contains(wordsOf("<body>" + stageRow(page, "FLASHING_START")), "2.0 s of 180 s"));
    EXPECT_FALSE(contains(page, "not reached"));
    EXPECT_FALSE(contains(page, "over-long"));
}

TEST(RunReport, counts_the_time_before_the_first_stage_as_idle) {
    RunRecord run = goodRun();
    run.stages.erase(run.stages.begin());
    run.stages.front().seconds = 20;
    const std::string row = stageRow(renderRunReport(run), "IDLE");
    EXPECT_TRUE(contains(row, "20.0 s")) << row;
    EXPECT_FALSE(contains(row, "over-long")) << row;
}

TEST(RunReport, marks_a_stage_that_took_far_longer_than_expected) {
    RunRecord run = goodRun();
    run.stages.back().seconds = 20;
    run.seconds = 20.5;
    const std::string row = stageRow(renderRunReport(run), "BACKUP_PACKAGE");
    EXPECT_TRUE(contains(row, "over-long, 2.0 times the expected")) << row;
}

TEST(RunReport, marks_the_stage_in_which_a_run_ended) {
    const std::string page = renderRunReport(failedRun());
    EXPECT_EQ(count(page, "failed here"), 1U);
    EXPECT_TRUE(contains(stageRow(page, "FLASHING_START"), "failed here"));
    EXPECT_TRUE(contains(stageRow(page, "FLASHING_START"), "2.9 s"));
    EXPECT_TRUE(contains(stageRow(page, "BACKUP_PACKAGE"), "not reached"));
    EXPECT_FALSE(contains(stageRow(page, "IDLE"), "failed"));

    RunRecord givenUp = failedRun();
    failWith(givenUp, 5);
    givenUp.stages.resize(3);
    EXPECT_TRUE(contains(stageRow(renderRunReport(givenUp), "START"), "given up here"));
}

TEST(RunReport, marks_the_versions_that_changed) {
    const std::string versions = section(renderRunReport(failedRun()), "Versions");
    EXPECT_EQ(count(versions, "<tr class=\"changed\">"), 3U);
    EXPECT_TRUE(contains(wordsOf("<body>" + versions), "hw hardware 1 1 1 "));
    EXPECT_TRUE(contains(wordsOf("<body>" + versions), "mpu main processor 104 105 changed 105 "));
    EXPECT_TRUE(contains(wordsOf("<body>" + versions), "mcu microcontroller 7 unfinished changed 7 "));
}

TEST(RunReport, says_which_versions_are_not_known) {
    RunRecord run = goodRun();
    run.versionAfter = "";
    run.packageVersion = "1.2";
    const std::string words = wordsOf("<body>" + section(renderRunReport(run), "Versions"));
    EXPECT_TRUE(contains(words, "mpu main processor 104 not known 2 ")) << words;
    EXPECT_TRUE(contains(words, "mcu microcontroller 7 not known not known ")) << words;
}

TEST(RunReport, divides_flashing_into_the_steps_that_the_log_names) {
    const std::string words = wordsOf("<body>" + section(renderRunReport(goodRun()), "Flashing"));
    EXPECT_TRUE(contains(words, "Main processor: flashed , 1.0 s")) << words;
    EXPECT_TRUE(contains(words, "Microcontroller: flashed , 1.7 s")) << words;
    EXPECT_TRUE(
        contains(words, "check the firmware 0.20 s switch the link on 1.0 s program and start it 0.50 s"))
        << words;
}

TEST(RunReport, names_the_processor_that_failed_with_its_step_and_error) {
    const std::string words = wordsOf("<body>" + section(renderRunReport(failedRun()), "Flashing"));
    EXPECT_TRUE(contains(words, "Main processor: flashed")) << words;
    EXPECT_TRUE(contains(words, "Microcontroller: failed")) << words;
    EXPECT_TRUE(contains(words, "program and start it: failed")) << words;
    EXPECT_TRUE(contains(words, "UpgradeMcu: it was refused")) << words;
}

TEST(RunReport, calls_a_processor_without_a_thread_not_flashed) {
    RunRecord run = goodRun();
    for (kavro::agent::LoggedLine& line : run.log) {
        line.thread = line.thread == kMcu ? "upgradectl" : line.thread;
    }
    const std::string page = renderRunReport(run);
    EXPECT_TRUE(contains(wordsOf(page), "Microcontroller: not flashed")) << wordsOf(page);
    EXPECT_FALSE(contains(wordsOf(page), "Main processor: not flashed")) << wordsOf(page);
}

TEST(RunReport, calls_a_processor_that_was_left_as_it_was_not_flashed) {
    RunRecord run = goodRun();
    run.log.front().text = "upgrade flag mpu[0], mcu[0], bld[0];";
    run.log[2].text = "no need to upgrade mcu!";
    const std::string words = wordsOf(renderRunReport(run));
    EXPECT_TRUE(contains(words, "Main processor: not flashed")) << words;
    EXPECT_TRUE(contains(words, "Microcontroller: not flashed")) << words;
}

TEST(RunReport, lists_states_and_components_with_whole_digests) {
    RunRecord run = goodRun();
    run.components.push_back({"mcu_flash_app.s19", 0, "", "is missing"});
    const std::string words = wordsOf(renderRunReport(run));
    EXPECT_TRUE(contains(words, "INPROGRESS_MPU 1.1 s FINISH 4.4 s")) << words;
    EXPECT_TRUE(contains(words, "Image 70000 bytes " + std::string(64, 'a') + " in order")) << words;
    EXPECT_TRUE(contains(words, "is missing")) << words;
}

TEST(RunReport, leads_from_the_head_to_the_errors_in_the_log) {
    const std::string page = renderRunReport(failedRun());
    EXPECT_TRUE(contains(page, "One error was logged"));
    EXPECT_TRUE(contains(page, "<a href=\"#line-6\">"));
    EXPECT_TRUE(contains(partFrom(page, "<li id=\"line-6\" class=\"error\">", "</li>"), "it was refused"));
}

TEST(RunReport, names_some_of_many_errors_in_the_head) {
    RunRecord run = failedRun();
    run.log.assign(40, {1, 1, "upgradectl", "again"});
    const std::string page = renderRunReport(run);
    EXPECT_TRUE(contains(page, "40 errors were logged"));
    EXPECT_EQ(count(page, "<a href=\"#line-"), 5U);
    EXPECT_EQ(count(page, "<li id=\"line-"), 40U);
}

TEST(RunReport, shows_hostile_text_as_text) {
    const std::string page = renderRunReport(hostileRun());
    EXPECT_EQ(count(page, "<script"), 0U);
    EXPECT_TRUE(contains(page,
                         "&lt;script&gt;alert(1)&lt;/"
                         "script&gt;&quot;&#39;&amp;\\x1b[2J\\x0a\\xff\\xe2\\x80\\xae\\xef\\xbf\\xbe"));
    EXPECT_EQ(faultOfMarkup(page), "");
}

TEST(RunReport, loads_nothing_and_runs_nothing) {
    const std::string page = renderRunReport(failedRun());
    EXPECT_TRUE(contains(
        page, "http-equiv=\"Content-Security-Policy\" content=\"default-src &#39;none&#39;; style-src "));
    for (const char* reference : {"://", "src=", "url(", "@import", "<link", "<script", "javascript:"}) {
        EXPECT_FALSE(contains(page, reference)) << reference;
    }
    EXPECT_FALSE(std::regex_search(page, std::regex("<[^>]* on[a-z]+=")));
    EXPECT_EQ(count(page, "href="), count(page, "href=\"#"));
}

TEST(RunReport, is_well_formed) {
    EXPECT_EQ(faultOfMarkup(renderRunReport(goodRun())), "");
    EXPECT_EQ(faultOfMarkup(renderRunReport(failedRun())), "");
    EXPECT_EQ(faultOfMarkup("<!DOCTYPE html><p><b></p></b>"), "closed, not open: </p>");
}

TEST(RunReport, of_a_run_that_was_refused_before_it_began_is_whole_too) {
    RunRecord run;
    run.command = "install";
    run.package = "/tmp/nowhere.pkg";
    failWith(run, 3);
    run.outcome = "the package '/tmp/nowhere.pkg' is missing";
    const std::string page = renderRunReport(run);
    EXPECT_EQ(faultOfMarkup(page), "");
    EXPECT_TRUE(contains(page, "The run did not begin."));
    EXPECT_TRUE(contains(page, "neither processor was flashed"));
    EXPECT_TRUE(contains(page, "The package could not be read."));
    EXPECT_TRUE(contains(page, "Nothing was logged."));
}

TEST(RunReport, is_written_whole_or_not_at_all) {
    const kavro_test::TempDir directory;
    const std::filesystem::path file = directory / "run.html";
    testsupport::writeFile(file, "an older one");
    upgradectl::writeRunReport(file, goodRun());
    EXPECT_EQ(testsupport::readFile(file), renderRunReport(goodRun()));
    try {
        upgradectl::writeRunReport(directory / "nowhere/run.html", goodRun());
        FAIL() << "a report in a directory that is not there was written";
    } catch (const kavro::Failure& error) {
        EXPECT_TRUE(contains(error.what(), "nowhere/run.html")) << error.what();
    }
}

}  // namespace
