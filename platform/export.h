// Marks the functions that the product module (w32tmkr.cpl) exports, with C linkage and their
// plain names: CW_EXPORT HResult TimeProvOpen(...). The module exports nothing else.
#pragma once

#ifdef _WIN32
#define CW_EXPORT extern "C" __declspec(dllexport)
#else
#define CW_EXPORT extern "C" __attribute__((visibility("default")))
#endif
