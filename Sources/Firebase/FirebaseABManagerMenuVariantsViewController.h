#pragma once
// The variants of one experiment; picking one hands it to the completion callback and
// goes back.

#include <functional>
#include <string>

#include "KTAnalytics/Firebase/FirebaseABAssignment.h"
#include "KTAnalytics/Firebase/MenuNavigationStack.h"

namespace kt {

class FirebaseABManagerMenuVariantsViewController final : public MenuTableScreen {
public:
    static constexpr const char* cellIdentifier = "reuseIdentifier";
    using CompletionCallback = std::function<void(const std::string& variant)>;

    FirebaseABManagerMenuVariantsViewController() = delete;
    FirebaseABManagerMenuVariantsViewController(FirebaseABExperimentType experiment,
                                                CompletionCallback completionCallback);

    std::string title() const override { return "Variants"; }
    std::vector<MenuRow> rows() const override;

    const FirebaseABExperimentType& experiment() const { return experiment_; }

protected:
    void didSelectRow(std::size_t index) override;

private:
    FirebaseABExperimentType experiment_;
    CompletionCallback completionCallback_;
};

}  // namespace kt
