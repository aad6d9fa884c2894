#pragma once
// The terminal front end of the experiment override menu: it draws the top screen of a
// MenuNavigationStack and turns keys (or, without a terminal, lines) into choices.

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kt {
class MenuNavigationStack;
}

namespace kt::tool {

enum class MenuKey {
    incomplete,  ///< a prefix of a longer key sequence: wait for more input
    ignored,     ///< bytes that mean nothing here; drop them
    up,
    down,
    enter,
    back,
    quit,
    digit,
};

struct DecodedKey {
    MenuKey key = MenuKey::ignored;
    int digit = 0;            ///< for MenuKey::digit
    std::size_t length = 0;   ///< bytes of the input the key takes up (0 when incomplete)

    friend bool operator==(const DecodedKey&, const DecodedKey&) = default;
};

/// Decodes the first key in bytes read from a terminal in raw mode. Arrows arrive as
/// "ESC [ A" or "ESC O A" (with optional modifier parameters); Up/Down (or k/j) move,
/// Enter or Right choose, 'b', Backspace, Left or a lone Escape go back, 'q', Ctrl-C or
/// Ctrl-D quit, a digit chooses by number. `moreMayFollow` is false once the terminal has
/// gone quiet: an unfinished sequence is then what it is (a lone Escape means back).
DecodedKey decodeKey(std::string_view input, bool moreMayFollow = true);

/// The menu over a navigation stack: which choice is highlighted on each screen, and what a
/// key or a typed line does.
class ExperimentsMenuSession {
public:
    explicit ExperimentsMenuSession(std::shared_ptr<MenuNavigationStack> navigation);

    enum class Outcome { keepGoing, quit };

    Outcome handle(const DecodedKey& key);
    /// A line typed when there is no terminal: a number chooses, "b" goes back, "q" quits.
    Outcome handleLine(std::string_view line);

    /// The top screen as plain lines, the highlighted choice marked with '>'.
    std::vector<std::string> render() const;
    /// The index of the highlighted choice on the top screen.
    std::size_t cursor() const;

private:
    void syncCursors();
    void chooseNumber(std::size_t number);
    void choose(std::size_t index);
    void back();

    std::shared_ptr<MenuNavigationStack> navigation_;
    std::vector<std::size_t> cursors_;  // one per screen on the stack
    std::string status_;
};

/// Runs the menu on the process's terminal (raw mode, ANSI drawing) until the user quits;
/// the terminal is restored on every way out, signals included. Returns the exit code.
int runInteractiveMenu(ExperimentsMenuSession& session, int inputFd, int outputFd);

/// Runs the menu over lines of text (no terminal). Returns the exit code.
int runLineMenu(ExperimentsMenuSession& session, std::istream& in, std::ostream& out);

}  // namespace kt::tool
