#pragma once
// The developer menu's screens as models with no user-interface dependency: what each
// screen shows, what can be chosen on it, and a navigation stack that screens push onto and
// pop from. A front end (the tool's terminal menu, a test) draws `title`,
// `informationLines` and `choices` of the top screen and calls `choose`.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kt {

class MenuNavigationStack;

enum class MenuColor { white, systemBlue };

class MenuScreen : public std::enable_shared_from_this<MenuScreen> {
public:
    MenuScreen() = default;
    virtual ~MenuScreen() = default;
    MenuScreen(const MenuScreen&) = delete;
    MenuScreen& operator=(const MenuScreen&) = delete;

    virtual std::string title() const = 0;
    /// Text shown above the choices, one entry per line.
    virtual std::vector<std::string> informationLines() const { return {}; }
    /// What can be chosen here, in order: the rows of a list, or the buttons of a screen.
    virtual std::vector<std::string> choices() const = 0;
    virtual void choose(std::size_t index) = 0;

    /// Loads the screen the first time it is about to be shown.
    void loadViewIfNeeded();
    bool isViewLoaded() const { return viewLoaded_; }
    /// The stack the screen is on; null when it is on none (or the stack is gone).
    std::shared_ptr<MenuNavigationStack> navigationController() const { return navigationController_.lock(); }

protected:
    virtual void viewDidLoad() {}

private:
    friend class MenuNavigationStack;
    std::weak_ptr<MenuNavigationStack> navigationController_;
    bool viewLoaded_ = false;
};

struct MenuRow {
    std::string cellIdentifier;
    std::string text;
};

/// A list screen with one section.
class MenuTableScreen : public MenuScreen {
public:
    std::size_t numberOfSections() const { return 1; }
    virtual std::vector<MenuRow> rows() const = 0;

    /// The user picks a row: it becomes selected, then the screen reacts.
    void selectRow(std::size_t index);
    std::optional<std::size_t> selectedRow() const { return selectedRow_; }

    std::vector<std::string> choices() const override;
    void choose(std::size_t index) override { selectRow(index); }

protected:
    virtual void didSelectRow(std::size_t index) = 0;
    void deselectRow(std::size_t index);

private:
    std::optional<std::size_t> selectedRow_;
};

/// Screens stacked on each other; the bottom one (the root) is never popped. Made with
/// std::make_shared, since screens keep a weak reference to the stack they are on.
class MenuNavigationStack : public std::enable_shared_from_this<MenuNavigationStack> {
public:
    MenuNavigationStack() = default;
    MenuNavigationStack(const MenuNavigationStack&) = delete;
    MenuNavigationStack& operator=(const MenuNavigationStack&) = delete;

    /// Loads the screen if needed and shows it on top.
    void push(std::shared_ptr<MenuScreen> screen);
    /// Removes the top screen and returns it; null (and nothing changes) at the root.
    std::shared_ptr<MenuScreen> pop();

    std::shared_ptr<MenuScreen> top() const;
    std::size_t depth() const { return screens_.size(); }
    const std::vector<std::shared_ptr<MenuScreen>>& screens() const { return screens_; }

private:
    std::vector<std::shared_ptr<MenuScreen>> screens_;
};

}  // namespace kt
