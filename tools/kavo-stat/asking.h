// Queries a host's status server.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

struct StatusError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The server's response for the path. The address is HOST:PORT or the path of a socket. Throws
// StatusError.
std::string ask(std::string const& address, std::string const& path);

// The host's status. Throws StatusError.
nlohmann::ordered_json statusOf(std::string const& address);
