#pragma once
// The vocabulary of names that may be tagged on the analytics controller.

#include <string>
#include <vector>

namespace kt {

class APEventNames {
public:
    APEventNames() = default;
    virtual ~APEventNames() = default;
    APEventNames(const APEventNames&) = delete;
    APEventNames& operator=(const APEventNames&) = delete;

    /// The fixed, ordered list of the 41 supported names.
    virtual const std::vector<std::string>& supportedEventNames() const;
};

}  // namespace kt
