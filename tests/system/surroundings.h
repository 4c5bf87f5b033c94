// What a process finds around it: variables and folders, for as long as their objects live.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

// A variable of the environment.
class Variable {
 public:
  Variable(char const* name, std::string const& value) : m_Name(name) { setenv(name, value.c_str(), 1); }
  ~Variable() { unsetenv(m_Name); }
  Variable(Variable const&) = delete;
  Variable& operator=(Variable const&) = delete;

 private:
  char const* m_Name;
};

class TemporaryFolder {
 public:
  TemporaryFolder() : m_Path("/tmp/kavo-test-XXXXXX") {
    if (mkdtemp(m_Path.data()) == nullptr) {
      std::abort();
    }
  }
  ~TemporaryFolder() {
    if (!m_Path.empty()) {
      std::filesystem::remove_all(m_Path);
    }
  }
  TemporaryFolder(TemporaryFolder&& other) noexcept : m_Path(std::exchange(other.m_Path, "")) {}
  TemporaryFolder& operator=(TemporaryFolder const&) = delete;

  std::string file(std::string const& name) const { return m_Path + "/" + name; }

 private:
  std::string m_Path;
};

inline std::string contentOf(std::string const& file) {
  std::ifstream stream(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}
