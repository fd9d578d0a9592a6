// Symbol visibility: the libraries are built with everything hidden, and a symbol is exported by saying so.
#pragma once

#define KAVRO_EXPORT __attribute__((visibility("default")))
