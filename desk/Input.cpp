#include "desk/Input.h"

#include <unistd.h>

#include <array>
#include <cctype>

namespace desk {

namespace {

constexpr char k_endOfInput = 'D' & 0x1F;
constexpr char k_eraseAll = 'U' & 0x1F;
constexpr char k_escape = 0x1B;
constexpr char k_backspace = '\b';
constexpr char k_delete = 0x7F;

}  // namespace

Input::Input(Timeline& timeline)
    : m_timeline(timeline), m_terminal(isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
    if (!m_terminal) {
        return;
    }
    tcgetattr(STDIN_FILENO, &m_before);
    termios raw = m_before;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VSUSP] = _POSIX_VDISABLE;  // a stopped desk would leave the daemon without answers
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    m_timeline.setTyped("");
}

Input::~Input() {
    if (m_terminal) {
        m_timeline.setTyped(std::nullopt);
        tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
    }
}

std::vector<std::string> Input::read() {
    std::array<char, 256> buffer{};
    const ssize_t size = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    std::vector<std::string> lines;
    for (ssize_t i = 0; i < size; ++i) {
        type(buffer[static_cast<std::size_t>(i)], lines);
    }
    m_ended = m_ended || size <= 0;
    if (m_terminal) {
        m_timeline.setTyped(m_line);
    }
    return lines;
}

void Input::type(char letter, std::vector<std::string>& lines) {
    if (m_inEscape) {
        m_inEscape = letter == '[' || letter == 'O' || std::isdigit(letter) != 0 || letter == ';';
    } else if (letter == '\n') {
        lines.push_back(m_line);
        m_line.clear();
    } else if (letter == k_endOfInput) {
        m_ended = m_line.empty();
    } else if (letter == k_eraseAll) {
        m_line.clear();
    } else if (letter == k_backspace || letter == k_delete) {
        erase();
    } else if (letter == k_escape) {
        m_inEscape = true;
    } else if (std::iscntrl(static_cast<unsigned char>(letter)) == 0) {
        m_line += letter;
    }
}

void Input::erase() {
    const auto isContinuation = [](char letter) {
        return (static_cast<unsigned char>(letter) & 0xC0U) == 0x80U;  // of a UTF-8 letter
    };
    while (!m_line.empty() && isContinuation(m_line.back())) {
        m_line.pop_back();
    }
    if (!m_line.empty()) {
        m_line.pop_back();
    }
}

}  // namespace desk
