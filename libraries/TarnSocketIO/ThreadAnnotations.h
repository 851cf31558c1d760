#pragma once

/// Which lock guards what, in a form that Clang checks at compile time (`-Wthread-safety`); empty for other compilers.
/// See <https://clang.llvm.org/docs/ThreadSafetyAnalysis.html>.

#if defined(__clang__)
#define TARN_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define TARN_THREAD_ANNOTATION_(x)
#endif

#define TARN_CAPABILITY(name) TARN_THREAD_ANNOTATION_(capability(name))
#define TARN_SCOPED_CAPABILITY TARN_THREAD_ANNOTATION_(scoped_lockable)
#define TARN_GUARDED_BY(lock) TARN_THREAD_ANNOTATION_(guarded_by(lock))
#define TARN_ACQUIRE(...) TARN_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
