// Forced first into every GCC translation unit. libbase's lock annotations are clang attributes
// and are spelled unconditionally: GCC warns about each one and fails on the ones that name a
// member declared further down. Only clang checks them, so for GCC they expand to nothing.
#pragma once
#if __has_include(<android-base/thread_annotations.h>)
#include <android-base/thread_annotations.h>
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif
