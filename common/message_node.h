// The device's message node and its link to the companion microcontroller. Implemented by libvel_node.so.
//
// All functions may be called from several threads at once, except velDestroyNode, which must be the last
// call on its node. A null node is accepted everywhere. None is a cancellation point.
#pragma once

#include "common/export.h"

// The size in bytes of every message that is published.
inline constexpr unsigned long kVelMsgBytes = 16;

// Opens the message node. name identifies the publisher; the numbers are the node service's own settings and
// are not interpreted here. Returns a handle that the caller owns and gives back by velDestroyNode, or null
// on failure.
KAVRO_EXPORT void* getVelNode(int domain, const char* name, int queue, int flags, int timeoutMs);

// Publishes the kVelMsgBytes bytes at message to whoever listens. Never waits for a slow or absent
// subscriber. Returns 0; negative when nothing was published, as with a null node.
KAVRO_EXPORT int velPublishMsg(void* node, const void* message);

// Closes the node and sets *node to null. Does nothing for a null pointer or a null handle. Blocks until
// what was published is on its way, for a second at most where a subscriber does not read.
KAVRO_EXPORT void velDestroyNode(void** node);

// Switches the link over which the microcontroller is flashed on or off. Returns zero or positive on success. A
// microcontroller that does not answer makes it and velGetMcuVersion fail, within a few seconds.
KAVRO_EXPORT int velSpiDevCtrl(void* node, bool on);

// The version of the firmware that the microcontroller runs, 0 or more; negative when it cannot be read, as
// from a microcontroller that holds no complete application.
KAVRO_EXPORT int velGetMcuVersion(void* node);
