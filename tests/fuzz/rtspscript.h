// What clients and the host do, in order: the input of rtspsession_fuzz, as text that a
// reader and libFuzzer both can change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

struct Step {
  enum class Kind : char {
    Send = 's',      // the bytes, on a connection, which is opened first; placeholders are filled in
    Datagram = 'd',  // the bytes, over UDP to the server's RTCP port of that connection's session
    Status = 'g',    // the bytes, to the status server
    Close = 'c',     // the connection, as a process that dies does
    Finish = 'f',    // sends no more, but reads
    Read = 'r',      // what has come
    Submit = 'h',    // the host submits a frame to each stream
    Remove = 'm',    // the host removes a session and creates it again
    Policy = 'p',    // another policy file is written
    Restart = 'x',   // the host ends serving, and begins again under that policy
    Clock = 't',     // the monotonic clock jumps ahead
    Refuse = 'e',    // the kernel refuses to send some packets
  };
  Kind kind = Kind::Submit;
  unsigned connection = 0;
  std::string bytes;
};

using Script = std::vector<Step>;

// "@KIND CONNECTION SIZE\n", the bytes and a line feed for each step; whatever is not that ends it.
Script parseScript(std::string const& text);
std::string textOf(Script const& script);

// One change of a kind that breaks servers: of a byte, a header, a message, or the order.
void mutate(Script& script, std::mt19937& random, std::size_t (*mutateBytes)(std::uint8_t*, std::size_t, std::size_t));
// Steps of both.
Script crossOver(Script const& one, Script const& other, std::mt19937& random);
