#pragma once
// The developer menu's entry screen: one row per experiment of the catalogue. Choosing one
// opens its experiment screen.

#include <memory>

#include "KTAnalytics/Firebase/FirebaseABManager.h"
#include "KTAnalytics/Firebase/MenuNavigationStack.h"
#include "KTAnalytics/Firebase/RemoteConfigProviding.h"

namespace kt {

class UserDefaults;

class FirebaseABManagerMenuViewController final : public MenuTableScreen {
public:
    static constexpr const char* cellIdentifier = "experimentIdentifier";

    FirebaseABManagerMenuViewController() = delete;
    /// Makes a manager of its own over `userDefaults`: a separate instance from the
    /// application's, reading and writing the same two keys.
    FirebaseABManagerMenuViewController(std::shared_ptr<UserDefaults> userDefaults,
                                        std::shared_ptr<RemoteConfigProviding> remoteConfigProvider);

    std::string title() const override { return "Experiments"; }
    std::vector<MenuRow> rows() const override;

    const std::shared_ptr<FirebaseABManager>& abManager() const { return abManager_; }
    const std::shared_ptr<RemoteConfigProviding>& remoteConfigProvider() const { return remoteConfigProvider_; }

protected:
    void didSelectRow(std::size_t index) override;

private:
    std::shared_ptr<FirebaseABManager> abManager_;
    std::shared_ptr<RemoteConfigProviding> remoteConfigProvider_;
};

}  // namespace kt
