#include "tools/upgradectl/install.h"

#include <cstdio>
#include <functional>
#include <memory>

#include "tools/upgradectl/exit_code.h"
#include "tools/upgradectl/report_place.h"
#include "tools/upgradectl/run_report.h"
#include "tools/upgradectl/run_view.h"
#include "upgrade/upgrade_api.h"

namespace upgradectl {

namespace {

namespace fs = std::filesystem;

using kavro::agent::RunBegin;
using kavro::agent::RunObserver;
using kavro::agent::RunOptions;

using MakeRun = std::function<kavro::Result<RunRecord>(const RunOptions&, RunObserver*)>;

OutputForm formOf(const ShownRun& wanted, const OwnOutput& output) {
    if (wanted.json) {
        return OutputForm::kJson;
    }
    return wanted.plain || !output.isTerminal() ? OutputForm::kPlain : OutputForm::kTerminal;
}

// Shows a run, and reports it where that was asked for.
class Presenter : public RunObserver {
  public:
    explicit Presenter(const ShownRun& shown)
        : wanted(shown), view(makeRunView(output, formOf(shown, output))) {}

    void begin(const RunBegin& run) override { view->begin(run); }
    void show(const RunStatus& status) override { view->show(status); }
    void notice(const std::string& text, double seconds) override { view->notice(text, seconds); }

    // The result of the run stands, whatever becomes of its note and of its report.
    void end(const RunRecord& record) override {
        view->end(record);
        if (!record.historyFault.empty()) {
            std::fprintf(stderr, "upgradectl: warning: the history has no note of this: %s\n",
                         record.historyFault.c_str());
        }
        try {
            if (wanted.report) {
                writeRunReport(*wanted.report, record);
            }
        } catch (const std::exception& error) {
            std::fprintf(stderr, "upgradectl: warning: there is no report: %s\n", error.what());
        }
    }

    // A report that has no place keeps the run from being made. Shown, not reported.
    void requirePlace(const fs::path& package) {
        try {
            if (wanted.report) {
                requirePlaceForReport(*wanted.report, {package, wanted.options.trustedKey.value_or("")});
            }
        } catch (const Failure& failure) {
            RunRecord refused;
            refused.error = failure.error();
            refused.outcome = failure.error().text;
            refused.nextStep = failure.error().next;
            view->end(refused);
            throw;
        }
    }

  private:
    const ShownRun& wanted;
    const OwnOutput output;
    const std::unique_ptr<RunObserver> view;
};

void performRun(const fs::path& package, const ShownRun& wanted, const Interrupts& interrupts,
                const MakeRun& make) {
    Presenter presenter(wanted);
    presenter.requirePlace(package);
    RunOptions options = wanted.options;
    options.giveUps = [&interrupts] { return interrupts.count(); };
    kavro::valueOf(make(options, &presenter));
}

}  // namespace

void install(const fs::path& package, const ShownRun& wanted, const Interrupts& interrupts) {
    performRun(package, wanted, interrupts, [&](const RunOptions& options, RunObserver* observer) {
        return kavro::agent::install(package, options, observer);
    });
}

void rollback(const ShownRun& wanted, const Interrupts& interrupts) {
    performRun(UpgradeProc::rollbackPkg, wanted, interrupts, kavro::agent::rollback);
}

}  // namespace upgradectl
