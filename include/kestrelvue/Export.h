#pragma once

// What a shared kestrelvue library exposes: everything is built hidden, and the public API is
// marked with KESTRELVUE_EXPORT, so machinery stays out of the dynamic symbol table and hosts
// cannot come to depend on it.
#if defined(_WIN32)
#define KESTRELVUE_EXPORT
#else
#define KESTRELVUE_EXPORT __attribute__((visibility("default")))
#endif
