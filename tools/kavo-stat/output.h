// A status as text for people.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

std::string tableOf(nlohmann::ordered_json const& status);

// The events after the one of that number, one per line; the number becomes the last one's.
std::string eventsAfter(nlohmann::ordered_json const& status, std::uint64_t& number);
