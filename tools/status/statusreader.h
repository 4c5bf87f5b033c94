// Reads a status page (kavo_status.h) that a library may be writing meanwhile, or
// that is none at all.
#pragma once

#include <kavo_status.h>

#include <memory>
#include <stdexcept>
#include <string>

// Why there is nothing to read.
struct StatusError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A copy in which every record is whole: one that was being written is free in it
// (streams, viewers) or empty (events, error). All texts end. Throws StatusError.
std::unique_ptr<kv_status_page> readStatus(std::string const& file);

// The same of the bytes of two readings, one after the other.
std::unique_ptr<kv_status_page> statusOf(std::string const& first, std::string const& second);

// The page of a process that was started with KAVO_STREAM_STATUS. Throws StatusError.
std::string statusFileOf(int pid);

// Whether the process of the page still runs.
bool isRunning(kv_status_page const& page);
