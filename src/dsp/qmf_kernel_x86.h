#pragma once
// Shared switches of the SIMD kernel files. Each kernel function carries its
// own target attribute, so the binary runs on any x86 processor and only the
// selected kernel ever executes wider instructions.
#if defined(__x86_64__) || defined(__i386__) || defined(_M_X64) || defined(_M_IX86)
#define TAVRIN_QMF_X86 1
#include <immintrin.h>
#endif

#if defined(__GNUC__) || defined(__clang__)
#define TAVRIN_TARGET(isa) __attribute__((target(isa)))
#else
#define TAVRIN_TARGET(isa)
#endif
