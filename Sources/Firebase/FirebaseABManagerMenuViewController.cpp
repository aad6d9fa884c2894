#include "KTAnalytics/Firebase/FirebaseABManagerMenuViewController.h"

#include "KTAnalytics/Firebase/FirebaseABExperiments.h"
#include "KTAnalytics/Firebase/FirebaseABManagerMenuExperimentViewController.h"
#include "KTAnalytics/Platform/Fatal.h"

namespace kt {

FirebaseABManagerMenuViewController::FirebaseABManagerMenuViewController(
    std::shared_ptr<UserDefaults> userDefaults, std::shared_ptr<RemoteConfigProviding> remoteConfigProvider)
    : remoteConfigProvider_(std::move(remoteConfigProvider)) {
    KT_PARAMETER_ASSERT(userDefaults);
    KT_PARAMETER_ASSERT_TEXT(remoteConfigProvider_, "remoteConfigProvider");
    abManager_ = std::make_shared<FirebaseABManager>(std::move(userDefaults));
}

std::vector<MenuRow> FirebaseABManagerMenuViewController::rows() const {
    std::vector<MenuRow> rows;
    for (const auto& experiment : FirebaseABExperimentProvider::all()) rows.push_back({cellIdentifier, experiment.id()});
    return rows;
}

void FirebaseABManagerMenuViewController::didSelectRow(std::size_t index) {
    deselectRow(index);
    const auto experiments = FirebaseABExperimentProvider::all();
    auto screen = std::make_shared<FirebaseABManagerMenuExperimentViewController>(abManager_, remoteConfigProvider_,
                                                                                  experiments.at(index));
    if (auto navigation = navigationController()) navigation->push(std::move(screen));
}

}  // namespace kt
