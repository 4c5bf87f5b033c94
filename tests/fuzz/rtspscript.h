// The input of rtspsession_fuzz: the steps of clients and host, in order, as text that both a reader and
// libFuzzer can edit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

struct Step {
  enum class Kind : char {
    Send = 's',      // sends the bytes on a connection, opened if necessary; placeholders are filled in
    Datagram = 'd',  // sends the bytes over UDP to the server's RTCP port for the connection's session
    Status = 'g',    // sends the bytes to the status server
    Close = 'c',     // resets the connection, as a process that dies does
    Finish = 'f',    // shuts the connection down for sending
    Read = 'r',      // reads what has arrived
    Submit = 'h',    // the host submits a frame to each stream
    Remove = 'm',    // the host removes a session and creates it again
    Policy = 'p',    // the operator writes another policy file
    Restart = 'x',   // the host stops the server and starts it with a policy
    Clock = 't',     // the monotonic clock jumps ahead
    Refuse = 'e',    // the kernel refuses to send some packets
  };
  Kind kind = Kind::Submit;
  unsigned connection = 0;
  std::string bytes;
};

using Script = std::vector<Step>;

// Each step is "@KIND CONNECTION SIZE\n", the bytes and a line feed; anything else ends the script.
Script parseScript(std::string const& text);
std::string textOf(Script const& script);

// Makes one change of a kind that breaks servers: to a byte, a header, a message or the order.
void mutate(Script& script, std::mt19937& random, std::size_t (*mutateBytes)(std::uint8_t*, std::size_t, std::size_t));
// The first steps of one script and the last steps of the other.
Script crossOver(Script const& one, Script const& other, std::mt19937& random);
