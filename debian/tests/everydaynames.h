// Classes of a host program with everyday names that live555 uses too. Each reports if
// its constructor or destructor runs for an object that is not the host's.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#define KAVO_EVERYDAY(Name)                                                  \
  class Name {                                                               \
   public:                                                                   \
    Name();                                                                  \
    explicit Name(unsigned short number);                                    \
    virtual ~Name();                                                         \
    std::string text;                                                        \
  };                                                                         \
  Name::Name() : text(#Name) {}                                              \
  Name::Name(unsigned short) : text(#Name) {}                                \
  Name::~Name() {                                                            \
    if (text != #Name) {                                                     \
      std::fputs("the host's " #Name " was called for another's\n", stderr); \
      std::abort();                                                          \
    }                                                                        \
  }                                                                          \
  Name g_##Name;

KAVO_EVERYDAY(Port)
KAVO_EVERYDAY(Socket)
KAVO_EVERYDAY(Medium)
KAVO_EVERYDAY(Groupsock)
KAVO_EVERYDAY(Authenticator)
