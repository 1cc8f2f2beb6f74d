#pragma once

namespace kelvane::classify {

// The first non-empty of the two texts, else "[unknown]"; for QString and
// std::string alike.
template <typename Text> Text displayLabel(const Text &first, const Text &second) {
    if (first.size() != 0)
        return first;
    if (second.size() != 0)
        return second;
    return Text("[unknown]");
}

} // namespace kelvane::classify
