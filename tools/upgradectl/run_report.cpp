#include "tools/upgradectl/run_report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <optional>

#include "base/output_file.h"
#include "run_report_style.h"
#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/html.h"
#include "tools/upgradectl/run_timeline.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

using kavro::agent::LoggedLine;
using kavro::agent::StateChange;

constexpr int kErrorLevel = 1;
constexpr std::size_t kErrorsInHead = 5;  // a failed run logs two to six
constexpr const char* kNotKnown = "not known";

// --- Numbers and times ----------------------------------------------------------------------------------------------

std::string formatNumber(const char* format, double number) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

// "0.06 s", "12.3 s", "240 s".
std::string formatSeconds(double seconds) {
    const char* format = seconds < 1 ? "%.2f s" : seconds < 100 ? "%.1f s" : "%.0f s";
    return formatNumber(format, seconds);
}

// A share of the whole in percent, for a picture: never out of it, whatever the numbers are.
std::string percent(double part, double whole) {
    const double share = whole > 0 ? part / whole : 0;
    return formatNumber("%.2f%%", std::clamp(share, 0.0, 1.0) * 100);
}

// The same for the width of a bar, which is seen also when next to nothing was taken.
std::string barWidth(double part, double whole) {
    constexpr double kThinnest = 0.002;
    return percent(std::max(part, kThinnest * whole), whole);
}

std::string formatUtc(std::time_t time, const char* format) {
    std::tm utc{};
    std::array<char, 64> text{};
    if (gmtime_r(&time, &utc) == nullptr) {
        return kNotKnown;
    }
    return {text.data(), std::strftime(text.data(), text.size(), format, &utc)};
}

std::string nameOf(int key, const COMMON_YR::MapKeyString* names) {
    return COMMON_YR::getKeyString(key, names);
}

std::string orNotKnown(const std::string& text) {
    return text.empty() ? kNotKnown : text;
}

// The outcome begins with a small letter, as it follows the program's name elsewhere.
std::string asSentence(std::string text) {
    if (!text.empty() && text.front() >= 'a' && text.front() <= 'z') {
        text.front() = static_cast<char>(text.front() - 'a' + 'A');
    }
    return text + ".";
}

// --- Small pieces of a page -----------------------------------------------------------------------------------------

Html heading(const std::string& text) {
    return htmlElement("h2", htmlText(text));
}

Html columnHead(const std::string& text) {
    return htmlElement("th", {{"scope", "col"}}, htmlText(text));
}

Html rowHead(const Html& content) {
    return htmlElement("th", {{"scope", "row"}}, content);
}

Html cell(const Html& content) {
    return htmlElement("td", content);
}

Html span(const std::string& cssClass, const std::string& text) {
    return htmlElement("span", {{"class", cssClass}}, htmlText(text));
}

Html paragraph(const std::string& cssClass, const std::string& text) {
    return htmlElement("p", {{"class", cssClass}}, htmlText(text));
}

// A table of columns of these names; rows are elements <tr>.
Html table(const char* cssClass, std::initializer_list<const char*> columns, const Html& rows,
           const std::string& caption = {}) {
    Html content = caption.empty() ? Html{} : htmlElement("caption", htmlText(caption));
    Html head;
    for (const char* column : columns) {
        head += columnHead(column);
    }
    content += htmlElement("thead", htmlElement("tr", head)) + htmlElement("tbody", rows);
    return htmlElement("table", {{"class", cssClass}}, content);
}

Html rectangle(const std::string& cssClass, const std::string& x, const std::string& width) {
    return htmlEmptyElement(
        "rect", {{"class", cssClass}, {"x", x}, {"y", "0"}, {"width", width}, {"height", "100%"}});
}

// A horizontal strip that says the same in words to whoever does not see it.
Html strip(int height, const std::string& words, const Html& bars) {
    return htmlElement("svg", {{"width", "100%"}, {"height", std::to_string(height)}, {"role", "img"}},
                       htmlElement("title", htmlText(words)) + rectangle("track", "0", "100%") + bars);
}

Html scale(double seconds) {
    return htmlElement(
        "div", {{"class", "scale"}, {"aria-hidden", "true"}},
        span("", "0 s") + span("", formatSeconds(seconds / 2)) + span("", formatSeconds(seconds)));
}

// --- The head -------------------------------------------------------------------------------------------------------

// Good or not is told by a word, a shape and a colour.
struct OutcomeRow {
    int exitCode;
    const char* cssClass;
    const char* word;
    const char* here;  // at the stage in which the run ended
    const char* shape;
};
constexpr OutcomeRow kOutcomes[] = {
    {static_cast<int>(ExitCode::kOk), "good", "Succeeded", "",
     "M12 2a10 10 0 1 0 0 20a10 10 0 1 0 0-20zM7 12.5l3.5 3.5l6.5-7.5"},
    {static_cast<int>(ExitCode::kRefused), "failed", "Refused", "refused here",
     "M8 2h8l6 6v8l-6 6h-8l-6-6v-8zM7 12h10"},
    {static_cast<int>(ExitCode::kGivenUp), "stopped", "Given up", "given up here",
     "M3 3h18v18h-18zM9.5 8.5v7M14.5 8.5v7"},
};
constexpr OutcomeRow kFailure = {-1, "failed", "Failed", "failed here",
                                 "M8 2h8l6 6v8l-6 6h-8l-6-6v-8zM8.5 8.5l7 7M15.5 8.5l-7 7"};

int exitCodeOf(const RunRecord& record) {
    return static_cast<int>(record.error ? upgradectl::exitCodeOf(*record.error) : ExitCode::kOk);
}

const OutcomeRow& outcomeOf(const RunRecord& record) {
    for (const OutcomeRow& row : kOutcomes) {
        if (row.exitCode == exitCodeOf(record)) {
            return row;
        }
    }
    return kFailure;
}

std::string titleOf(const RunRecord& record) {
    const std::filesystem::path package(record.package);
    return outcomeOf(record).word + std::string(": ") + record.command + " " + package.filename().string();
}

// A terminal shows the device's words in lines of their own; the page has them below, as errors.
std::string nextStepOnPage(std::string text) {
    static const std::string kOnTerminal = "the device: lines";
    const std::size_t at = text.find(kOnTerminal);
    return at == std::string::npos ? text : text.replace(at, kOnTerminal.size(), "the errors below");
}

Html outcomePanel(const RunRecord& record) {
    const OutcomeRow& outcome = outcomeOf(record);
    const Html icon = htmlElement("svg", {{"viewBox", "0 0 24 24"}, {"aria-hidden", "true"}},
                                  htmlEmptyElement("path", {{"class", "icon"}, {"d", outcome.shape}}));
    Html words = htmlElement("h1", {{"class", outcome.cssClass}}, htmlText(outcome.word)) +
                 paragraph("", asSentence(record.outcome));
    if (!record.nextStep.empty()) {
        words += htmlElement(
            "p", htmlElement("strong", htmlText("Next: ")) + htmlText(nextStepOnPage(record.nextStep)));
    }
    return htmlElement("div", {{"class", std::string("outcome ") + outcome.cssClass}},
                       icon + htmlElement("div", words));
}

Html fact(const char* name, const Html& value) {
    return htmlElement("dt", htmlText(name)) + htmlElement("dd", value);
}

Html facts(const RunRecord& record) {
    const Html begun = htmlElement("time", {{"datetime", formatUtc(record.begun, "%Y-%m-%dT%H:%M:%SZ")}},
                                   htmlText(formatUtc(record.begun, "%Y-%m-%d %H:%M:%S UTC")));
    return htmlElement("dl", fact("Package", htmlElement("code", htmlText(record.package))) +
                                 fact("Begun", begun) +
                                 fact("Duration", htmlText(formatSeconds(record.seconds))) +
                                 fact("Exit code", htmlText(std::to_string(exitCodeOf(record)))));
}

std::string lineId(std::size_t index) {
    return "line-" + std::to_string(index + 1);
}

Html errorLink(const RunRecord& record, std::size_t index) {
    return htmlElement("li", htmlElement("a", {{"href", "#" + lineId(index)}},
                                         htmlText(formatSeconds(record.log[index].seconds))) +
                                 htmlText(" " + record.log[index].text));
}

Html errorsOf(const RunRecord& record) {
    std::size_t count = 0;
    Html links;
    for (std::size_t i = 0; i < record.log.size(); ++i) {
        if (record.log[i].level == kErrorLevel && ++count <= kErrorsInHead) {
            links += errorLink(record, i);
        }
    }
    if (count == 0) {
        return paragraph("faint", "No errors were logged.");
    }
    const std::string title =
        count == 1 ? "One error was logged" : std::to_string(count) + " errors were logged";
    Html html = heading(title) + htmlElement("ul", {{"class", "errors"}}, links);
    if (count > kErrorsInHead) {
        html +=
            htmlElement("p", htmlText("The rest is in ") +
                                 htmlElement("a", {{"href", "#log"}}, htmlText("the log")) + htmlText("."));
    }
    return html;
}

Html head(const RunRecord& record) {
    return htmlElement("header", paragraph("mono faint", "upgradectl " + record.command) +
                                     outcomePanel(record) + facts(record) + errorsOf(record));
}

// --- Versions -------------------------------------------------------------------------------------------------------

constexpr const char* kVersionParts[] = {"hw", "mpu", "mcu", "bld"};
constexpr const char* kVersionMeanings[] = {"hardware", "main processor", "microcontroller", "boot loader"};
// A negative version is that of what is about to be written: it stays when the writing does not come to its end.
constexpr const char* kUnfinished = "unfinished";

// "V01.105.008.003" has "105" at 1; nothing where the text has another form.
std::string versionPart(const std::string& version, std::size_t part) {
    std::size_t begin = version.rfind('V', 0) == 0 ? 1 : 0;
    for (; part != 0; --part) {
        const std::size_t dot = version.find('.', begin);
        if (dot == std::string::npos) {
            return {};
        }
        begin = dot + 1;
    }
    const std::string digits = version.substr(begin, version.find('.', begin) - begin);
    if (digits.rfind('-', 0) == 0) {
        return kUnfinished;
    }
    return digits.substr(std::min(digits.find_first_not_of('0'), digits.empty() ? 0 : digits.size() - 1));
}

Html versionRow(const RunRecord& record, std::size_t part) {
    const std::string before = versionPart(record.versionBefore, part);
    const std::string after = versionPart(record.versionAfter, part);
    const bool changed = !before.empty() && !after.empty() && before != after;
    const Html name = htmlElement("code", htmlText(kVersionParts[part])) + htmlText(" ") +
                      span("faint small", kVersionMeanings[part]);
    const Html row = rowHead(name) + cell(htmlText(orNotKnown(before))) +
                     cell(htmlText(orNotKnown(after)) + (changed ? span("note", "changed") : Html{})) +
                     cell(htmlText(orNotKnown(versionPart(record.packageVersion, part))));
    return htmlElement("tr", {{"class", changed ? "changed" : ""}}, row);
}

Html versions(const RunRecord& record) {
    Html rows;
    for (std::size_t part = 0; part < std::size(kVersionParts); ++part) {
        rows += versionRow(record, part);
    }
    return heading("Versions") +
           table("versions short", {"Part", "Before", "After", "Package"}, rows,
                 "As the device reported them. The main processor and the boot loader report new ones "
                 "once the device was restarted.");
}

// --- Stages ---------------------------------------------------------------------------------------------------------

std::string stageName(int stage) {
    return nameOf(stage, UpgradeProc::stageNames);
}

Html stageTimes(const StageSpan& stage) {
    const std::string words =
        formatSeconds(stage.seconds) + " of " + formatSeconds(stage.expectedSeconds) + " expected";
    Html html = htmlText(formatSeconds(stage.seconds)) +
                span("faint", " of " + formatNumber("%.0f s", stage.expectedSeconds));
    html += strip(
        6, words,
        rectangle(stage.overLong() ? "late" : "bar", "0", barWidth(stage.seconds, stage.expectedSeconds)));
    if (stage.overLong()) {
        html += span("note failed", "over-long, " + formatNumber("%.1f times the expected",
                                                                 stage.seconds / stage.expectedSeconds));
    }
    return html;
}

Html stageRow(const RunRecord& record, const StageSpan& stage) {
    const OutcomeRow& outcome = outcomeOf(record);
    if (!stage.reached) {
        return htmlElement(
            "tr", {{"class", "faint"}},
            rowHead(span("mono", stageName(stage.stage))) + cell({}) + cell(htmlText("not reached")));
    }
    const bool ended = stage.wasLast && record.error.has_value();
    Html name = span("mono", stageName(stage.stage));
    if (ended) {
        name +=
            htmlElement("span", {{"class", std::string("note ") + outcome.cssClass}}, htmlText(outcome.here));
    }
    const std::string when =
        "from " + formatSeconds(stage.begin) + " to " + formatSeconds(stage.begin + stage.seconds);
    const Html bar = rectangle(ended ? std::string("end ") + outcome.cssClass : "bar",
                               percent(stage.begin, record.seconds), barWidth(stage.seconds, record.seconds));
    return htmlElement("tr", {{"class", ended ? "ended" : ""}},
                       rowHead(name) + cell(strip(14, when, bar)) + cell(stageTimes(stage)));
}

Html stages(const RunRecord& record) {
    if (record.stages.empty()) {
        return heading("Stages") + paragraph("", "The run did not begin.");
    }
    Html rows;
    for (const StageSpan& stage : stageSpans(record)) {
        rows += stageRow(record, stage);
    }
    const std::string caption = "When each stage ran, to the scale of the whole run of " +
                                formatSeconds(record.seconds) +
                                ", and how much of the time it may take on slow storage it took.";
    return heading("Stages") + table("stages", {"Stage", "In the run", "Took, of expected"}, rows, caption);
}

// --- Flashing -------------------------------------------------------------------------------------------------------

struct ProcessorRow {
    Processor processor;
    const char* shortName;
    const char* name;
};
constexpr ProcessorRow kProcessors[] = {
    {Processor::kMain, "MPU", "Main processor"},
    {Processor::kMicrocontroller, "MCU", "Microcontroller"},
};

std::string stepClass(std::size_t index) {
    return "step" + std::to_string(index % 3);
}

const char* wordOf(FlashingSpan::End end) {
    switch (end) {
        case FlashingSpan::End::kDone:
            return "flashed";
        case FlashingSpan::End::kFailed:
            return "failed";
        case FlashingSpan::End::kUnknown:
            break;
    }
    return "no end logged";
}

const char* classOf(FlashingSpan::End end) {
    return end == FlashingSpan::End::kDone ? "good" : "failed";
}

// Both processors' lanes have the same axis: the stage in which they are flashed.
Html laneBars(const FlashingSpan& flashing, const StageSpan& axis) {
    Html bars;
    for (std::size_t i = 0; i < flashing.steps.size(); ++i) {
        const FlashingStep& step = flashing.steps[i];
        bars += rectangle(stepClass(i), percent(step.begin - axis.begin, axis.seconds),
                          barWidth(step.seconds, axis.seconds));
    }
    if (flashing.end == FlashingSpan::End::kFailed) {
        const double end = flashing.begin + flashing.seconds - axis.begin;
        bars += rectangle("late", percent(end, axis.seconds), "4");
    }
    return bars;
}

Html lane(const ProcessorRow& row, const std::optional<FlashingSpan>& flashing, const StageSpan& axis) {
    const std::string name = std::string(row.name) + ": ";
    const Html label = htmlElement("strong", {{"aria-hidden", "true"}}, htmlText(row.shortName));
    if (!flashing) {
        return label + strip(20, name + "not flashed", {});
    }
    const std::string words = name + formatSeconds(flashing->seconds) + ", " + wordOf(flashing->end);
    return label + strip(20, words, laneBars(*flashing, axis));
}

Html stepItem(const FlashingStep& step, std::size_t index, bool failed) {
    const Html swatch = htmlElement("svg", {{"width", "10"}, {"height", "10"}, {"aria-hidden", "true"}},
                                    rectangle(stepClass(index), "0", "100%"));
    Html name = htmlText(step.name);
    if (failed) {
        name += htmlText(": ") + htmlElement("strong", {{"class", "failed"}}, htmlText("failed"));
    }
    return htmlElement("li", swatch + htmlElement("span", name) + span("time", formatSeconds(step.seconds)));
}

Html stepList(const FlashingSpan& flashing) {
    Html items;
    for (std::size_t i = 0; i < flashing.steps.size(); ++i) {
        const bool last = i + 1 == flashing.steps.size();
        items += stepItem(flashing.steps[i], i, last && flashing.end == FlashingSpan::End::kFailed);
    }
    return htmlElement("ul", {{"class", "steps"}}, items);
}

Html processorDetails(const ProcessorRow& row, const std::optional<FlashingSpan>& flashing) {
    const Html name = htmlText(std::string(row.name) + ": ");
    if (!flashing) {
        return htmlElement("div", htmlElement("h3", name + span("faint", "not flashed")));
    }
    Html details = htmlElement("h3", name + span(classOf(flashing->end), wordOf(flashing->end)) +
                                         htmlText(", " + formatSeconds(flashing->seconds)));
    details += stepList(*flashing);
    if (!flashing->error.empty()) {
        details += paragraph("mono", flashing->error);
    }
    return htmlElement("div", details);
}

Html flashing(const RunRecord& record) {
    const StageSpan axis = stageSpans(record).at(UPGRADE_STAGE_FLASHING_START);
    if (!axis.reached) {
        return heading("Flashing") +
               paragraph("", "The run ended before flashing: neither processor was flashed.");
    }
    Html lanes;
    Html details;
    for (const ProcessorRow& row : kProcessors) {
        const std::optional<FlashingSpan> span = flashingSpan(record, row.processor);
        lanes += lane(row, span, axis);
        details += processorDetails(row, span);
    }
    lanes += htmlElement("span", {}) + scale(axis.seconds);
    return heading("Flashing") +
           paragraph("faint small", "Both processors on one axis, from the begin of flashing to its end.") +
           htmlElement("div", {{"class", "lanes"}}, lanes) + htmlElement("div", {{"class", "pair"}}, details);
}

// --- States, components, log ----------------------------------------------------------------------------------------

Html states(const RunRecord& record) {
    if (record.states.empty()) {
        return heading("Published states") + paragraph("", "None were published.");
    }
    Html rows;
    for (const StateChange& change : record.states) {
        rows += htmlElement("tr", rowHead(span("mono", nameOf(change.state, UpgradeProc::stateNames))) +
                                      cell(htmlText(formatSeconds(change.seconds))));
    }
    return heading("Published states") + table("short", {"State", "After"}, rows);
}

// On a narrow screen a row becomes a block, which the style sheet does; the roles keep it a row for who listens.
Html componentRow(const kavro::package::ComponentCheck& component) {
    const bool inOrder = component.fault.empty();
    return htmlElement(
        "tr", {{"role", "row"}},
        htmlElement("th", {{"scope", "row"}, {"role", "rowheader"}, {"class", "mono"}},
                    htmlText(component.name)) +
            htmlElement("td", {{"role", "cell"}, {"class", "bytes"}},
                        htmlText(std::to_string(component.bytes) + " bytes")) +
            htmlElement("td", {{"role", "cell"}, {"class", "mono digest"}},
                        htmlText(component.sha256.empty() ? "missing" : component.sha256)) +
            htmlElement("td", {{"role", "cell"}, {"class", inOrder ? "check good" : "check failed"}},
                        htmlText(inOrder ? "in order" : component.fault)));
}

Html components(const RunRecord& record) {
    if (record.components.empty()) {
        return heading("Components of the package") + paragraph("", "The package could not be read.");
    }
    Html rows;
    for (const kavro::package::ComponentCheck& component : record.components) {
        rows += componentRow(component);
    }
    return heading("Components of the package") +
           table("components", {"Component", "Size", "SHA-256", "Check"}, rows);
}

struct LevelRow {
    int level;
    const char* word;
};
constexpr LevelRow kLevels[] = {{kErrorLevel, "error"}, {2, "notice"}, {3, "info"}};

const char* levelWord(int level) {
    for (const LevelRow& row : kLevels) {
        if (row.level == level) {
            return row.word;
        }
    }
    return "debug";
}

Html logItem(const RunRecord& record, std::size_t index) {
    const LoggedLine& line = record.log[index];
    const char* level = levelWord(line.level);
    const Html content = span("time", formatNumber("%.3f s", line.seconds)) + htmlText(" ") +
                         span("level", level) + htmlText(" ") + span("thread", line.thread) + htmlText(" ") +
                         span("text", line.text);
    return htmlElement("li", {{"id", lineId(index)}, {"class", level}}, content);
}

Html log(const RunRecord& record) {
    const Html title = htmlElement("h2", {{"id", "log"}}, htmlText("Log"));
    if (record.log.empty()) {
        return title + paragraph("", "Nothing was logged.");
    }
    Html lines;
    for (std::size_t i = 0; i < record.log.size(); ++i) {
        lines += logItem(record, i);
    }
    return title + htmlElement("ol", {{"class", "log"}}, lines);
}

// --- The page -------------------------------------------------------------------------------------------------------

Html pageHead(const RunRecord& record) {
    return htmlElement(
        "head",
        htmlEmptyElement("meta", {{"charset", "utf-8"}}) +
            htmlEmptyElement("meta", {{"http-equiv", "Content-Security-Policy"},
                                      {"content",
                                       "default-src 'none'; style-src 'unsafe-inline'; base-uri 'none'; "
                                       "form-action 'none'"}}) +
            htmlEmptyElement("meta",
                             {{"name", "viewport"}, {"content", "width=device-width, initial-scale=1"}}) +
            htmlElement("title", htmlText(titleOf(record))) + htmlElement("style", {kRunReportStyle}));
}

Html pageBody(const RunRecord& record) {
    const Html sections = versions(record) + stages(record) + flashing(record) + states(record) +
                          components(record) + log(record);
    return htmlElement("body", head(record) + htmlElement("main", sections));
}

}  // namespace

std::string renderRunReport(const RunRecord& record) {
    const Html page = htmlElement("html", {{"lang", "en"}}, pageHead(record) + pageBody(record));
    return "<!DOCTYPE html>\n" + page.markup + "\n";
}

void writeRunReport(const std::filesystem::path& file, const RunRecord& record) {
    kavro::OutputFile output(file);
    output.writeAt(0, renderRunReport(record));
    output.commit();
}

}  // namespace upgradectl
