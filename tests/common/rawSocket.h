#pragma once

#include "tests/common/descriptors.h"

#include <string>
#include <string_view>

/// Peers made of bare system calls, which do what no end of a pipe would do.
namespace common {

Descriptor rawSocket();
bool rawConnect(const Descriptor& socket, const std::string& name);
bool rawListen(const Descriptor& socket, const std::string& name);

/// Whether all of `bytes` went out, which a peer that reads slowly delays.
bool rawSend(const Descriptor& socket, std::string_view bytes);

/// One receive of whatever comes first; the empty text for the end of the stream or nothing.
std::string rawReceive(const Descriptor& socket);

/// Whether the other side has ended the stream, which is waited for, without one more byte.
bool rawSeesTheEnd(const Descriptor& socket);

/// The socket of the one pipe of a worker process: the library keeps it to itself, so it is found
/// the way a stray library would.
int socketOfPipe();

/// Whether all of `bytes` went out through that socket, and so before anything that follows.
bool sendPastTheLibrary(std::string_view bytes);

} // namespace common
