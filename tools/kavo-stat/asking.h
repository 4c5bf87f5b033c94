// Asks a host's status server.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

struct StatusError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What it answers to a request for the path. The address is HOST:PORT or the path of a socket.
// Throws StatusError.
std::string ask(std::string const& address, std::string const& path);

// Its status. Throws StatusError.
nlohmann::ordered_json statusOf(std::string const& address);
