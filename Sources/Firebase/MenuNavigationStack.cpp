#include "KTAnalytics/Firebase/MenuNavigationStack.h"

#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

void MenuScreen::loadViewIfNeeded() {
    if (viewLoaded_) return;
    viewLoaded_ = true;
    viewDidLoad();
}

void MenuTableScreen::selectRow(std::size_t index) {
    KT_PARAMETER_ASSERT(index < rows().size());
    selectedRow_ = index;
    didSelectRow(index);
}

void MenuTableScreen::deselectRow(std::size_t index) {
    if (selectedRow_ == index) selectedRow_.reset();
}

std::vector<std::string> MenuTableScreen::choices() const {
    std::vector<std::string> texts;
    for (auto& row : rows()) texts.push_back(row.text);
    return texts;
}

void MenuNavigationStack::push(std::shared_ptr<MenuScreen> screen) {
    KT_PARAMETER_ASSERT(screen);
    screen->navigationController_ = weak_from_this();
    screen->loadViewIfNeeded();
    screens_.push_back(std::move(screen));
}

std::shared_ptr<MenuScreen> MenuNavigationStack::pop() {
    if (screens_.size() <= 1) return nullptr;
    auto screen = std::move(screens_.back());
    screens_.pop_back();
    screen->navigationController_.reset();
    return screen;
}

std::shared_ptr<MenuScreen> MenuNavigationStack::top() const {
    return screens_.empty() ? nullptr : screens_.back();
}

}  // namespace kt
