// Formats a status for people.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

std::string tableOf(nlohmann::ordered_json const& status);

// The events after the given number, one per line; sets the number to that of the last one.
std::string eventsAfter(nlohmann::ordered_json const& status, std::uint64_t& number);
