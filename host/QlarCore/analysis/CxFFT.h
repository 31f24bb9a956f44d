#pragma once
#include "QlarCoreExport.h"
#include "SxPicBuf.h"

#include <QtCore/QString>

// Discrete Fourier transforms of real data for the spectrum nodes, in single
// precision.
//
// What is computed:
// - The forward transform, unnormalised: X[k] = sum_n x[n] exp(-2 pi i k n / N)
//   (in 2D the same along both axes). The zero-frequency bin therefore holds
//   the plain sum of the samples; divide by N (w x h) for the mean.
// - Full-length complex spectra, centred: the zero-frequency bin sits at index
//   n / 2 (integer half) in 1D and at column w / 2, row h / 2 in 2D, and index
//   n / 2 + k holds frequency k cycles per length, wrapping round the ends.
//   For even n, index 0 holds the Nyquist bin -n/2; for odd n the spectrum is
//   symmetric about the centre. Only half of a real signal's spectrum is
//   transformed; the other half is written as its conjugate mirror about the
//   centre (out[c + k] = conj(out[c - k])).
//
// Handles. Alloc makes three handles, Calc takes them back unchanged and Free
// releases them; each owns one allocation, so Free accepts any of them null
// and frees the others. h1 holds the plans and the size, h2 and h3 the work
// buffers (1D: the real input copy and the half spectrum; 2D: the half
// spectrum after the column pass and the per-thread scratch). Calc refuses
// null handles, handles of the other dimension, and h2/h3 that were not made
// together with h1. One set of handles serves one Calc at a time; different
// sets may run concurrently. Alloc overwrites the handles it is given without
// freeing them.
//
// Inputs and outputs:
// - Calc1D reads n floats at in and writes n floats each at re and im; the
//   input is copied first, so it may be one of the outputs. re and im must
//   differ.
// - Calc2D takes a one-channel picture of the allocated width and height with
//   8-, 16- or 32-bit integer samples (signed or not) or 32-bit float samples,
//   any line pitch; samples are transformed as stored (no scaling to full
//   scale), integers above 2^24 lose precision in the conversion to float.
//   re and im are one-channel pictures of the same size with 32-bit samples
//   and any line pitch, written as floats whatever their type says (float,
//   or the 32-bit integer type that FFT 2D announces for its pool); they must
//   not overlap each other. Only the pixels are written.
//   Any other type, size or channel count, null pixels, or rows not aligned to
//   the sample size answer false and write nothing.
//
// Planning. FFTW's planner is not thread-safe, so all planning and plan
// destruction in this process goes through one mutex; executing runs
// unlocked. Plans are made with FFTW_MEASURE under a time limit of half a
// second per plan, and the resulting wisdom is kept on disk (wisdomFilePath();
// failures to read or write it are ignored). Each planning reads the file,
// plans and writes the wisdom back under a lock on the file, so a size is
// measured once per machine and every later process plans it the same way:
// measured plans differ in their rounding, and a spectrum recorded in one
// process comes out bit for bit the same when qlarrun replays it. The first
// start for a new size costs at most a fraction of a second, later starts
// reuse the measured plans at once. Measuring whole
// 2D transforms takes seconds per size, which is why the 2D transform is not
// planned as one piece (below).
//
// 2D layout and threads. The picture is transformed column blocks first (16
// columns at a time are converted to float, transformed real-to-complex and
// stored as half a spectrum of h/2+1 rows), then row by row (complex
// transforms whose results go straight into the two output rows of that
// frequency and of its mirror, already centred). Both passes share their
// blocks out through the kit's row scheduler, each thread executing
// single-threaded plans on its own scratch, so FFTW's own thread pool is
// not used: the plans are made single-threaded whatever thread count the
// process set for FFTW's planner, which is restored afterwards. Nothing is allocated per call.
class QLARCORE_EXPORT CxFFT
{
public:
    static bool Alloc1D(int n, void*& h1, void*& h2, void*& h3);
    static bool Calc1D(float* in, float* re, float* im, void* h1, void* h2, void* h3);
    static void Free1D(void* h1, void* h2, void* h3);

    // Uses the width and height of info; the sample type is taken from each
    // picture handed to Calc2D.
    static bool Alloc2D(const SxPicBufInfo& info, void*& h1, void*& h2, void*& h3);
    static bool Calc2D(const SxPicBuf& in, SxPicBuf& re, SxPicBuf& im, void* h1, void* h2, void* h3);
    static void Free2D(void* h1, void* h2, void* h3);

    // Where the planner's wisdom is kept (empty when no cache folder exists).
    static QString wisdomFilePath();
};
