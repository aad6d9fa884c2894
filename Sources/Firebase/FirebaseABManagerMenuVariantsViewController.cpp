#include "KTAnalytics/Firebase/FirebaseABManagerMenuVariantsViewController.h"

namespace kt {

FirebaseABManagerMenuVariantsViewController::FirebaseABManagerMenuVariantsViewController(
    FirebaseABExperimentType experiment, CompletionCallback completionCallback)
    : experiment_(std::move(experiment)), completionCallback_(std::move(completionCallback)) {}

std::vector<MenuRow> FirebaseABManagerMenuVariantsViewController::rows() const {
    std::vector<MenuRow> rows;
    for (auto& variant : experiment_.allVariants()) rows.push_back({cellIdentifier, variant});
    return rows;
}

void FirebaseABManagerMenuVariantsViewController::didSelectRow(std::size_t index) {
    deselectRow(index);
    const std::string variant = experiment_.allVariants().at(index);
    if (completionCallback_) completionCallback_(variant);
    // Keep this screen alive until popping it is done.
    auto self = weak_from_this().lock();
    if (auto navigation = navigationController()) navigation->pop();
}

}  // namespace kt
