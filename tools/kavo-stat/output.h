// A status as text for people.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

std::string tableOf(nlohmann::ordered_json const& status);

// The events behind the one of that number, a line each; the number becomes the last one's.
std::string eventsAfter(nlohmann::ordered_json const& status, std::uint64_t& number);
