/// The lines that the user types.
#pragma once

#include <termios.h>

#include <string>
#include <vector>

#include "desk/Timeline.h"

namespace desk {

/// Standard input, line by line. On a terminal the line being typed is kept here and shown below
/// the timeline, where no other line can tear it apart; the terminal's own echo would leave it
/// behind in the middle. Used by one thread.
class Input {
  public:
    explicit Input(Timeline& timeline);

    /// The terminal is as it was before.
    ~Input();
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    /// Reads what is there (waiting when there is nothing), and gives the lines that are complete.
    std::vector<std::string> read();

    /// True once there will be no more lines.
    bool ended() const { return m_ended; }

  private:
    void type(char letter, std::vector<std::string>& lines);
    void erase();

    Timeline& m_timeline;
    const bool m_terminal;
    termios m_before{};
    std::string m_line;
    bool m_inEscape = false;  // within the code of a key such as an arrow, which is passed over
    bool m_ended = false;
};

}  // namespace desk
