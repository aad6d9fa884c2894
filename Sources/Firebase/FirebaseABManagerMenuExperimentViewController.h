#pragma once
// One experiment in the developer menu: what remote config says, which override is set,
// and the buttons to change or clear the override. Overrides are set for the experiment's
// id only; its companion value cannot be overridden here.

#include <functional>
#include <memory>
#include <string>

#include "KTAnalytics/Firebase/FirebaseABAssignment.h"
#include "KTAnalytics/Firebase/FirebaseABManager.h"
#include "KTAnalytics/Firebase/MenuNavigationStack.h"
#include "KTAnalytics/Firebase/RemoteConfigProviding.h"

namespace kt {

struct MenuLabel {
    std::string text;
};

struct MenuButton {
    std::string title;
    /// The title's colour in the normal state.
    MenuColor titleColor = MenuColor::systemBlue;
    std::function<void()> action;

    void tap() const {
        if (action) action();
    }
};

class FirebaseABManagerMenuExperimentViewController final : public MenuScreen {
public:
    /// Shown when there is no value, or an empty one.
    static constexpr const char* noValueText = "(none)";

    FirebaseABManagerMenuExperimentViewController() = delete;
    FirebaseABManagerMenuExperimentViewController(std::shared_ptr<FirebaseABManager> abManager,
                                                  std::shared_ptr<RemoteConfigProviding> remoteConfigProvider,
                                                  FirebaseABExperimentType experiment);

    std::string title() const override { return experiment_.id(); }
    /// "remote: <remote value>" and "override: <override>".
    std::vector<std::string> informationLines() const override;
    /// The titles of the two buttons.
    std::vector<std::string> choices() const override;
    void choose(std::size_t index) override;

    /// Shows the variants; the one picked there becomes the override.
    void changeOverrideTapped();
    void clearOverrideTapped();

    const MenuLabel& remoteValueLabel() const { return remoteValueLabel_; }
    const MenuLabel& overriddenValueLabel() const { return overriddenValueLabel_; }
    const MenuButton& changeOverridenButton() const { return changeOverridenButton_; }
    const MenuButton& clearOverridenButton() const { return clearOverridenButton_; }
    MenuColor backgroundColor() const { return backgroundColor_; }

    const FirebaseABExperimentType& experiment() const { return experiment_; }
    const std::shared_ptr<FirebaseABManager>& abManager() const { return abManager_; }

protected:
    void viewDidLoad() override;

private:
    void refreshLabels();

    std::shared_ptr<FirebaseABManager> abManager_;
    std::shared_ptr<RemoteConfigProviding> remoteConfigProvider_;
    FirebaseABExperimentType experiment_;
    MenuColor backgroundColor_ = MenuColor::white;
    MenuLabel remoteValueLabel_;
    MenuLabel overriddenValueLabel_;
    MenuButton changeOverridenButton_;
    MenuButton clearOverridenButton_;
};

}  // namespace kt
