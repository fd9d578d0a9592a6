// Symbol visibility: the libraries are built with everything hidden, and a symbol is exported by saying so.
#pragma once

// In front of whatever a library exports.
#define KAVRO_EXPORT __attribute__((visibility("default")))
