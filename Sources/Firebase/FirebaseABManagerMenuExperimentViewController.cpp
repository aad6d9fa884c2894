#include "KTAnalytics/Firebase/FirebaseABManagerMenuExperimentViewController.h"

#include "KTAnalytics/Firebase/FirebaseABManagerMenuVariantsViewController.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

namespace {

std::string labelText(const std::optional<std::string>& value) {
    if (!value || value->empty()) return FirebaseABManagerMenuExperimentViewController::noValueText;
    return *value;
}

}  // namespace

FirebaseABManagerMenuExperimentViewController::FirebaseABManagerMenuExperimentViewController(
    std::shared_ptr<FirebaseABManager> abManager, std::shared_ptr<RemoteConfigProviding> remoteConfigProvider,
    FirebaseABExperimentType experiment)
    : abManager_(std::move(abManager)),
      remoteConfigProvider_(std::move(remoteConfigProvider)),
      experiment_(std::move(experiment)) {
    KT_PARAMETER_ASSERT_TEXT(abManager_, "abManager");
    KT_PARAMETER_ASSERT_TEXT(remoteConfigProvider_, "remoteConfigProvider");
}

void FirebaseABManagerMenuExperimentViewController::viewDidLoad() {
    backgroundColor_ = MenuColor::white;
    // The buttons belong to the screen, so their actions may refer to it directly.
    changeOverridenButton_ = {"change", MenuColor::systemBlue, [this] { changeOverrideTapped(); }};
    clearOverridenButton_ = {"clear", MenuColor::systemBlue, [this] { clearOverrideTapped(); }};
    refreshLabels();
}

std::vector<std::string> FirebaseABManagerMenuExperimentViewController::informationLines() const {
    return {"remote: " + remoteValueLabel_.text, "override: " + overriddenValueLabel_.text};
}

std::vector<std::string> FirebaseABManagerMenuExperimentViewController::choices() const {
    return {changeOverridenButton_.title, clearOverridenButton_.title};
}

void FirebaseABManagerMenuExperimentViewController::choose(std::size_t index) {
    KT_PARAMETER_ASSERT(index < 2);
    (index == 0 ? changeOverridenButton_ : clearOverridenButton_).tap();
}

void FirebaseABManagerMenuExperimentViewController::changeOverrideTapped() {
    // The variant list outlives nothing it should not: if this screen is gone by the time a
    // variant is picked, the pick is dropped.
    std::weak_ptr<MenuScreen> weakSelf = weak_from_this();
    auto variants = std::make_shared<FirebaseABManagerMenuVariantsViewController>(
        experiment_, [weakSelf](const std::string& variant) {
            auto screen = std::static_pointer_cast<FirebaseABManagerMenuExperimentViewController>(weakSelf.lock());
            if (!screen) return;
            screen->abManager_->setOverride(variant, screen->experiment_.id());
            screen->refreshLabels();
        });
    if (auto navigation = navigationController()) navigation->push(std::move(variants));
}

void FirebaseABManagerMenuExperimentViewController::clearOverrideTapped() {
    abManager_->setOverride(std::nullopt, experiment_.id());
    refreshLabels();
}

void FirebaseABManagerMenuExperimentViewController::refreshLabels() {
    const std::string id = experiment_.id();
    remoteValueLabel_.text = labelText(remoteConfigProvider_->valueFor(id));
    overriddenValueLabel_.text = labelText(abManager_->overriddenValue(id));
}

}  // namespace kt
