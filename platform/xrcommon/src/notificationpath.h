// Parses a notification's path.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

/// `[name='value']`, `[name="value"]` or `[name=value]`.
struct PathKey {
    std::string_view name;
    std::string_view value;
};

struct PathStep {
    std::string_view name;
    std::vector<PathKey> keys;
};

/// The steps of an absolute path, as views of it; nothing if it is malformed.
std::optional<std::vector<PathStep>> pathSteps(std::string_view path);
