#pragma once
// What the processor can do, asked once per process, and the attribute that
// builds a kernel for several vector units at once.

namespace pixelkit {

// Compute-bound row kernels are also built for wider vector units and the
// best one is picked when the library loads (QLAR_NO_VECTOR_CLONES builds
// only the one the compiler flags ask for).
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__ELF__) \
    && !defined(QLAR_NO_VECTOR_CLONES)
#define QLAR_VECTOR_CLONES __attribute__((target_clones("arch=x86-64-v4", "avx2", "default")))
#else
#define QLAR_VECTOR_CLONES
#endif

enum class CpuFeature { Avx2, Avx512Bw, Avx512Vbmi };

// Hand-written vector paths test their feature here; the answers are
// computed on first use and kept.
inline bool cpuHas(CpuFeature f)
{
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    static const bool avx2 = __builtin_cpu_supports("avx2");
    // The x86-64-v4 level: what 512-bit lanes of any sample width need.
    static const bool avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw")
                               && __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
    // The byte permutes of the table look-ups need all three.
    static const bool vbmi = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw")
                             && __builtin_cpu_supports("avx512vbmi");
    switch (f) {
    case CpuFeature::Avx2: return avx2;
    case CpuFeature::Avx512Bw: return avx512;
    case CpuFeature::Avx512Vbmi: return vbmi;
    }
#endif
    (void)f;
    return false;
}

} // namespace pixelkit
