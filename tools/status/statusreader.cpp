#include "status/statusreader.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

// Not more than a page: what the name stands for may be anything, and long.
std::string bytesOf(std::string const& file) {
  int const descriptor = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) {
    throw StatusError("cannot read '" + file + "': " + std::strerror(errno));
  }
  std::string bytes(sizeof(kv_status_page), '\0');
  std::size_t size = 0;
  ssize_t got = 0;
  while (size < bytes.size() &&
         (got = pread(descriptor, bytes.data() + size, bytes.size() - size, static_cast<off_t>(size))) > 0) {
    size += static_cast<std::size_t>(got);
  }
  close(descriptor);
  bytes.resize(size);
  return bytes;
}

void check(kv_status_process const& process, std::size_t size) {
  if (size < sizeof process || std::memcmp(process.magic, KV_STATUS_MAGIC, sizeof process.magic) != 0) {
    throw StatusError("this is no status page");
  }
  if (process.version != KV_STATUS_VERSION) {
    throw StatusError("the page has version " + std::to_string(process.version) + ", and this program reads version " +
                      std::to_string(KV_STATUS_VERSION) + ": use the kavo-stat that came with the host's library");
  }
  if (size < sizeof(kv_status_page) || process.size != sizeof(kv_status_page)) {
    throw StatusError("the page is truncated");
  }
}

template <std::size_t Size>
void end(char (&text)[Size]) {
  text[Size - 1] = '\0';
}

// What was written between the two readings may be half of one record and half of another.
template <class Record>
bool isWhole(Record const& record, Record const& later) {
  return record.sequence % 2 == 0 && record.sequence == later.sequence;
}

}  // namespace

std::unique_ptr<kv_status_page> statusOf(std::string const& first, std::string const& second) {
  auto page = std::make_unique<kv_status_page>();
  auto later = std::make_unique<kv_status_page>();
  std::memcpy(page.get(), first.data(), std::min(first.size(), sizeof *page));
  std::memcpy(later.get(), second.data(), std::min(second.size(), sizeof *later));
  check(page->process, first.size());
  check(later->process, second.size());
  end(page->process.library);
  if (!isWhole(page->process.last_error, later->process.last_error)) {
    page->process.last_error = {};
  }
  end(page->process.last_error.text);
  for (std::size_t i = 0; i < KV_STATUS_STREAMS; ++i) {
    if (!isWhole(page->streams[i], later->streams[i])) {
      page->streams[i] = {};
    }
    end(page->streams[i].name);
  }
  for (std::size_t i = 0; i < KV_STATUS_VIEWERS; ++i) {
    if (!isWhole(page->viewers[i], later->viewers[i])) {
      page->viewers[i] = {};
    }
    end(page->viewers[i].address);
  }
  for (std::size_t i = 0; i < KV_STATUS_EVENTS; ++i) {
    if (page->events[i].number % KV_STATUS_EVENTS != i || page->events[i].number != later->events[i].number) {
      page->events[i] = {};
    }
    end(page->events[i].stream);
    end(page->events[i].text);
  }
  return page;
}

std::unique_ptr<kv_status_page> readStatus(std::string const& file) {
  auto const first = bytesOf(file);
  try {
    return statusOf(first, bytesOf(file));
  } catch (StatusError const& error) {
    throw StatusError("'" + file + "': " + error.what());
  }
}

std::string statusFileOf(int pid) {
  std::string const folder = "/proc/" + std::to_string(pid);
  std::ifstream environment(folder + "/environ", std::ios::binary);
  if (!environment) {
    throw StatusError("no process " + std::to_string(pid) + " of yours runs");
  }
  constexpr std::string_view variable = "KAVO_STREAM_STATUS=";
  for (std::string entry; std::getline(environment, entry, '\0');) {
    if (entry.starts_with(variable) && entry.size() > variable.size()) {
      std::string name = entry.substr(variable.size());
      for (auto at = name.find("%p"); at != std::string::npos; at = name.find("%p", at + 1)) {
        name.replace(at, 2, std::to_string(pid));
      }
      std::error_code none;
      return std::filesystem::read_symlink(folder + "/cwd", none) / name;
    }
  }
  throw StatusError("process " + std::to_string(pid) + " was started without KAVO_STREAM_STATUS=FILE");
}

bool isRunning(kv_status_page const& page) {
  return page.process.pid > 0 && (kill(static_cast<pid_t>(page.process.pid), 0) == 0 || errno == EPERM);
}
