#include "Commands/ExperimentsMenu.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <istream>
#include <ostream>

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include "KTAnalytics/Firebase/MenuNavigationStack.h"

namespace kt::tool {

// ---------------------------------------------------------------------------------------
// Key decoding

namespace {

constexpr char escape = '\x1b';

DecodedKey key(MenuKey key, std::size_t length, int digit = 0) { return DecodedKey{key, digit, length}; }

MenuKey arrow(char final) {
    switch (final) {
        case 'A': return MenuKey::up;
        case 'B': return MenuKey::down;
        case 'C': return MenuKey::enter;
        case 'D': return MenuKey::back;
        default: return MenuKey::ignored;
    }
}

}  // namespace

DecodedKey decodeKey(std::string_view input, bool moreMayFollow) {
    if (input.empty()) return key(moreMayFollow ? MenuKey::incomplete : MenuKey::ignored, 0);
    const char first = input[0];
    if (first != escape) {
        switch (first) {
            case '\r': case '\n': return key(MenuKey::enter, 1);
            case '\x7f': case '\b': case 'b': case 'B': return key(MenuKey::back, 1);
            case 'q': case 'Q': case '\x03': case '\x04': return key(MenuKey::quit, 1);
            case 'k': return key(MenuKey::up, 1);
            case 'j': return key(MenuKey::down, 1);
            default:
                if (first >= '0' && first <= '9') return key(MenuKey::digit, 1, first - '0');
                return key(MenuKey::ignored, 1);
        }
    }

    if (input.size() == 1) return moreMayFollow ? key(MenuKey::incomplete, 0) : key(MenuKey::back, 1);
    const char introducer = input[1];
    if (introducer == 'O') {  // SS3: ESC O <final>, sent by terminals in application cursor mode
        if (input.size() == 2) return moreMayFollow ? key(MenuKey::incomplete, 0) : key(MenuKey::ignored, 2);
        return key(arrow(input[2]), 3);
    }
    if (introducer == '[') {  // CSI: ESC [ <parameters and intermediates> <final byte 0x40-0x7e>
        for (std::size_t i = 2; i < input.size(); ++i) {
            const unsigned char c = static_cast<unsigned char>(input[i]);
            if (c >= 0x40 && c <= 0x7e) return key(arrow(static_cast<char>(c)), i + 1);
            if (c < 0x20 || c > 0x3f) return key(MenuKey::ignored, i);  // malformed: drop what came before
        }
        return moreMayFollow ? key(MenuKey::incomplete, 0) : key(MenuKey::ignored, input.size());
    }
    // Escape followed by something else: the Escape key on its own, then another key.
    return key(MenuKey::back, 1);
}

// ---------------------------------------------------------------------------------------
// The session

ExperimentsMenuSession::ExperimentsMenuSession(std::shared_ptr<MenuNavigationStack> navigation)
    : navigation_(std::move(navigation)) {
    syncCursors();
}

void ExperimentsMenuSession::syncCursors() {
    const std::size_t depth = navigation_->depth();
    cursors_.resize(depth, 0);
    if (depth == 0) return;
    const std::size_t count = navigation_->top()->choices().size();
    std::size_t& cursor = cursors_.back();
    if (count == 0)
        cursor = 0;
    else if (cursor >= count)
        cursor = count - 1;
}

std::size_t ExperimentsMenuSession::cursor() const {
    // Screens pushed from outside the session start with their first choice highlighted.
    return cursors_.size() == navigation_->depth() && !cursors_.empty() ? cursors_.back() : 0;
}

ExperimentsMenuSession::Outcome ExperimentsMenuSession::handle(const DecodedKey& decoded) {
    status_.clear();
    syncCursors();
    if (navigation_->depth() == 0) return Outcome::quit;
    const std::size_t count = navigation_->top()->choices().size();
    std::size_t& cursor = cursors_.back();
    switch (decoded.key) {
        case MenuKey::up:
            if (count) cursor = (cursor + count - 1) % count;
            break;
        case MenuKey::down:
            if (count) cursor = (cursor + 1) % count;
            break;
        case MenuKey::enter:
            if (count) choose(cursor);
            break;
        case MenuKey::digit:
            chooseNumber(static_cast<std::size_t>(decoded.digit));
            break;
        case MenuKey::back:
            back();
            break;
        case MenuKey::quit:
            return Outcome::quit;
        case MenuKey::incomplete:
        case MenuKey::ignored:
            break;
    }
    return Outcome::keepGoing;
}

ExperimentsMenuSession::Outcome ExperimentsMenuSession::handleLine(std::string_view line) {
    status_.clear();
    syncCursors();
    if (navigation_->depth() == 0) return Outcome::quit;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    if (line.empty()) return Outcome::keepGoing;
    if (line == "q" || line == "quit") return Outcome::quit;
    if (line == "b" || line == "back") {
        back();
        return Outcome::keepGoing;
    }
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    if (error == std::errc() && end == line.data() + line.size())
        chooseNumber(number);
    else
        status_ = "unknown choice \"" + std::string(line) + "\": type a number, b or q";
    return Outcome::keepGoing;
}

void ExperimentsMenuSession::chooseNumber(std::size_t number) {
    const std::size_t count = navigation_->top()->choices().size();
    if (number == 0 || number > count) {
        status_ = "no choice " + std::to_string(number) + " here";
        return;
    }
    cursors_.back() = number - 1;
    choose(number - 1);
}

void ExperimentsMenuSession::choose(std::size_t index) {
    navigation_->top()->choose(index);
    syncCursors();
}

void ExperimentsMenuSession::back() {
    if (!navigation_->pop()) status_ = "this is the first screen; q quits";
    syncCursors();
}

std::vector<std::string> ExperimentsMenuSession::render() const {
    std::vector<std::string> lines;
    std::string path;
    for (const auto& screen : navigation_->screens()) path += (path.empty() ? "" : " > ") + screen->title();
    lines.push_back(path);
    lines.emplace_back();
    if (navigation_->depth() == 0) return lines;

    const auto& top = *navigation_->top();
    const auto information = top.informationLines();
    for (const auto& line : information) lines.push_back("  " + line);
    if (!information.empty()) lines.emplace_back();
    const auto choices = top.choices();
    for (std::size_t i = 0; i < choices.size(); ++i)
        lines.push_back((i == cursor() ? "> " : "  ") + std::to_string(i + 1) + ". " + choices[i]);
    if (!status_.empty()) {
        lines.emplace_back();
        lines.push_back(status_);
    }
    return lines;
}

// ---------------------------------------------------------------------------------------
// The terminal

namespace {

// The signal handlers need the saved settings without an object to reach them through;
// only one terminal menu runs at a time.
volatile std::sig_atomic_t terminalIsRaw = 0;
termios savedSettings;
int terminalInput = -1;
int terminalOutput = -1;

constexpr std::string_view enterSequence = "\x1b[?1049h\x1b[?25l";  // alternate screen, hidden cursor
constexpr std::string_view leaveSequence = "\x1b[?25h\x1b[?1049l";

void writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// Async-signal-safe: tcsetattr and write only.
void restoreTerminal() {
    if (!terminalIsRaw) return;
    terminalIsRaw = 0;
    ::tcsetattr(terminalInput, TCSAFLUSH, &savedSettings);
    writeAll(terminalOutput, leaveSequence);
}

constexpr int handledSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

extern "C" void restoreTerminalAndDie(int signalNumber) {
    restoreTerminal();
    std::signal(signalNumber, SIG_DFL);
    std::raise(signalNumber);
}

/// Raw mode for as long as it lives; the destructor (or a fatal signal) puts the terminal
/// back as it was.
class RawTerminal {
public:
    RawTerminal(int inputFd, int outputFd) {
        if (::tcgetattr(inputFd, &savedSettings) != 0) return;
        terminalInput = inputFd;
        terminalOutput = outputFd;

        struct sigaction action {};
        action.sa_handler = restoreTerminalAndDie;
        sigemptyset(&action.sa_mask);
        for (std::size_t i = 0; i < std::size(handledSignals); ++i)
            ::sigaction(handledSignals[i], &action, &previousActions_[i]);
        handlersInstalled_ = true;

        termios raw = savedSettings;
        // Keys one by one, unechoed, Ctrl-C as a key; output processing stays on.
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG | IEXTEN);
        raw.c_iflag &= ~static_cast<tcflag_t>(IXON | ICRNL | BRKINT | INPCK | ISTRIP);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        terminalIsRaw = 1;
        if (::tcsetattr(inputFd, TCSAFLUSH, &raw) != 0) {
            terminalIsRaw = 0;
            return;
        }
        writeAll(outputFd, enterSequence);
        active_ = true;
    }

    ~RawTerminal() {
        restoreTerminal();
        if (handlersInstalled_)
            for (std::size_t i = 0; i < std::size(handledSignals); ++i)
                ::sigaction(handledSignals[i], &previousActions_[i], nullptr);
    }

    RawTerminal(const RawTerminal&) = delete;
    RawTerminal& operator=(const RawTerminal&) = delete;

    bool active() const { return active_; }

private:
    struct sigaction previousActions_[std::size(handledSignals)] {};
    bool handlersInstalled_ = false;
    bool active_ = false;
};

bool inputArrivesSoon(int fd) {
    // Long enough for the rest of an escape sequence, short enough that a lone Escape
    // feels immediate.
    pollfd descriptor{fd, POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&descriptor, 1, 50);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

void draw(int fd, const std::vector<std::string>& lines) {
    std::string frame = "\x1b[H\x1b[2J";
    for (const auto& line : lines) {
        if (line.starts_with("> "))
            frame += "\x1b[7m" + line + "\x1b[0m";
        else
            frame += line;
        frame += "\r\n";
    }
    frame += "\r\nUp/Down move, Enter or 1-9 choose, b back, q quit\r\n";
    writeAll(fd, frame);
}

}  // namespace

int runInteractiveMenu(ExperimentsMenuSession& session, int inputFd, int outputFd) {
    RawTerminal terminal(inputFd, outputFd);
    if (!terminal.active()) return 1;

    std::string pending;
    char buffer[64];
    for (;;) {
        draw(outputFd, session.render());
        for (;;) {
            DecodedKey decoded = decodeKey(pending);
            if (decoded.key == MenuKey::incomplete) {
                if (!pending.empty() && !inputArrivesSoon(inputFd)) {
                    decoded = decodeKey(pending, /*moreMayFollow=*/false);
                } else {
                    const ssize_t count = ::read(inputFd, buffer, sizeof buffer);
                    if (count < 0 && errno == EINTR) continue;
                    if (count <= 0) return count == 0 ? 0 : 1;  // the terminal went away
                    pending.append(buffer, static_cast<std::size_t>(count));
                    continue;
                }
            }
            pending.erase(0, decoded.length);
            if (decoded.key == MenuKey::ignored) continue;
            if (session.handle(decoded) == ExperimentsMenuSession::Outcome::quit) return 0;
            break;
        }
    }
}

int runLineMenu(ExperimentsMenuSession& session, std::istream& in, std::ostream& out) {
    for (;;) {
        for (const auto& line : session.render()) out << line << '\n';
        out << "\nchoice (number, b back, q quit): " << std::flush;
        std::string line;
        if (!std::getline(in, line)) {
            out << '\n';
            return 0;
        }
        out << '\n';
        if (session.handleLine(line) == ExperimentsMenuSession::Outcome::quit) return 0;
    }
}

}  // namespace kt::tool
