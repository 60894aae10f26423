// Output for a terminal: its width and colours, lines that fit it, and a progress line.
#ifndef KAVRI_BASE_TERMINAL_H
#define KAVRI_BASE_TERMINAL_H

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

namespace kavri::base {

struct DisplayStyle {
    bool terminal = false;  // lines can be replaced, and are to fit
    bool colour = false;
    unsigned columns = 80;

    // What fits the descriptor and the environment: TERM, NO_COLOR.
    static DisplayStyle of(int descriptor);
    static DisplayStyle ofStandardOutput();
};

// How many columns a text takes: without the sequences that set a colour, and with one for
// each character in UTF-8.
std::size_t widthOf(std::string_view text);

// The text as it fits: on a terminal, a line that is too long is broken where two or more
// blanks separate its parts, and within a part between words. What follows is indented. A
// word is never broken, and elsewhere nothing is.
std::string fitted(std::string_view text, const DisplayStyle& style);

// A line on a terminal that is replaced, and erased at the end. Elsewhere it is not shown.
class ProgressLine {
  public:
    // Both must outlive this.
    ProgressLine(std::ostream& output, const DisplayStyle& style)
        : output_(output), style_(style) {}
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine() { clear(); }

    // Cut where it would wrap, since it could not be replaced then.
    void show(std::string line);
    // Before other output.
    void clear();

  private:
    std::ostream& output_;
    const DisplayStyle& style_;
    std::string shown_;
};

}  // namespace kavri::base

#endif
