// What a run looks like: a line per case as it ends, what the module and the
// broker print in between, and a closing line.
//
// The results are one stream, what others print is another, each made of whole
// lines. On a terminal the case under way is shown in a line that is replaced;
// there and only there colour tells verdicts apart.
#ifndef KAVRI_CLI_RUN_DISPLAY_H
#define KAVRI_CLI_RUN_DISPLAY_H

#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "cli/report.h"

namespace kavri::cli {

struct DisplayStyle {
    bool terminal = false;  // lines can be replaced
    bool colour = false;
    unsigned columns = 80;

    // What fits this process' standard output and its environment.
    static DisplayStyle ofStandardOutput();
};

class RunDisplay {
  public:
    // Whether what is under way is shown, and so wants to be shown again.
    bool isLive() const { return style_.terminal; }

    // `results` is for the tool's own lines, `others` for what others print.
    RunDisplay(std::ostream& results, std::ostream& others, DisplayStyle style,
               const std::vector<std::string>& cases);

    // What is judged, and by way of which broker.
    void showOpening(const std::string& library, const std::string& broker);
    void showCaseUnderWay(const CaseReport& report, double seconds);
    void showCaseEnded(const CaseReport& report);
    void showOthersLine(std::string_view line);
    // What is worth knowing and belongs to no case.
    void showRemark(std::string_view line);
    void showClosing(const std::vector<CaseReport>& cases, double seconds);
    // How far something long has come, on a terminal: "faults  [####    ] 12/66".
    void showProgress(std::string_view what, size_t done, size_t all);

    // Takes away the line that is replaced, for others to write.
    void clearProgress();

  private:
    void replaceProgress(std::string line);
    void showDetails(const CaseReport& report);
    std::string coloured(std::string_view text, std::string_view colour) const;

    std::ostream& results_;
    std::ostream& others_;
    DisplayStyle style_;
    size_t caseCount_;
    size_t nameWidth_;
    std::string progress_;  // as it stands on the terminal
};

std::string durationText(double seconds);
std::string hangText(const HangReport& hang);

// A text on one line: line breaks and what else a terminal would act upon
// are written as escapes.
std::string printable(std::string_view text);

}  // namespace kavri::cli

#endif
