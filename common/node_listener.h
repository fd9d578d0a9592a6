// The listening end of the device's message node, for programs that follow what another one publishes.
//
// libvel_node.so implements it. It is declared weak: another board may leave it out, and the addresses are null then. All
// functions but velReceive may be called from several threads at once. None is a cancellation point.
#pragma once

#include <string>

#include "common/export.h"

// Listens to an address; an empty one becomes the device's own. Does not wait for a publisher, and goes on when one ends.
// Returns a handle that the caller owns and gives back by velEndListening; null, with the reason, for what is no address.
// The address stays empty when the device has none.
KAVRO_EXPORT __attribute__((weak)) void* velListen(std::string& address, std::string& error);

// The next message, as it was published, and a number that differs from publisher to publisher. False when none came within
// so many milliseconds. One thread at a time.
KAVRO_EXPORT __attribute__((weak)) bool velReceive(void* listener, int timeoutMs, std::string& message,
                                                   int& publisher);

// Ends the listening and sets *listener to null. Does nothing for a null handle. Does not wait.
KAVRO_EXPORT __attribute__((weak)) void velEndListening(void** listener);
