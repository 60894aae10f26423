// The report on the terminal: a line for each case as it ends, the output of module and
// broker in between, and a closing line.
//
// Results and foreign output are two streams of whole lines. On a terminal the current
// case is shown in a line that is replaced, and verdicts are coloured.
#ifndef KAVRI_CONFORMANCE_REPORT_RUN_DISPLAY_H
#define KAVRI_CONFORMANCE_REPORT_RUN_DISPLAY_H

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "base/terminal.h"
#include "conformance/report/report.h"

namespace kavri::conformance {

using base::DisplayStyle;

class RunDisplay {
  public:
    // Whether the current case is shown, and so needs to be refreshed.
    bool isLive() const { return style_.terminal; }

    // `results` is for the tool's own lines, `others` for foreign output.
    RunDisplay(std::ostream& results, std::ostream& others, DisplayStyle style,
               const std::vector<std::string>& cases);

    // The library under test, and the broker.
    void showOpening(const std::string& library, const std::string& broker);
    void showCaseUnderWay(const CaseReport& report, double seconds);
    void showCaseEnded(const CaseReport& report);
    void showForeignLine(std::string_view line);
    // A line that belongs to no case.
    void showRemark(std::string_view line);
    void showRepeats(const RepeatReport& repeats, double seconds);
    void showMatrix(const MatrixReport& matrix);
    // The cases that failed, known failures apart, and what runs each again.
    void showFailed(const std::vector<CaseReport>& cases);
    void showClosing(const std::vector<CaseReport>& cases, double seconds);
    // A line for a pass that the other side does not confirm.
    void showConfirmation(const LibraryReport& library);
    // A progress bar, on a terminal: "faults  [####    ] 12/66".
    void showProgress(std::string_view what, size_t done, size_t all);

    // Erases the line that is replaced, before other output.
    void clearProgress() { progress_.clear(); }

  private:
    void showDetails(const CaseReport& report);
    // As it fits, and with a line break.
    void showLine(std::string_view line);
    std::string coloured(std::string_view text, std::string_view colour) const;

    std::ostream& results_;
    std::ostream& others_;
    DisplayStyle style_;
    size_t caseCount_;
    size_t nameWidth_;
    base::ProgressLine progress_;  // the line on the terminal that is replaced
};

std::string durationText(double seconds);
std::string hangText(const HangReport& hang);

}  // namespace kavri::conformance

#endif
