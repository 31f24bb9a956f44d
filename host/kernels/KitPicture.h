#pragma once
// Tests and arithmetic that every picture kernel needs, written once. The
// picture types come in as template parameters (any record with the fields
// and members of the host's picture records), so the kit needs none of the
// host's headers.

#include <QtCore/qglobal.h>

#include <limits>
#include <type_traits>

namespace pixelkit {

// Bytes the pixels span: every row's pitch but the last, which needs only its
// samples (a picture cut out of a larger one ends right after them). A
// picture 0 samples wide still spans its pitches: row copies that go by the
// pitch must find them.
template <class Format>
quint64 requiredBytes(const Format& f)
{
    if (f.height == 0)
        return 0;
    return f.effectiveLinePitch() * (f.height - 1) + f.packedLineBytes();
}

// Full scale of a sample, (1 << bitsPerSample) - 1, saturated at 32 bits.
template <class Format>
quint64 fullScale(const Format& f)
{
    return (quint64(1) << qMin<quint32>(f.bitsPerSample, 32)) - 1;
}

// Rows no shorter than their samples, and all of them inside the memory the
// picture says it has (a capacity of 0 is not known and not checked).
template <class Pic>
bool rowsFit(const Pic& p)
{
    return p.effectiveLinePitch() >= p.packedLineBytes()
        && (p.memCapacity == 0 || requiredBytes(p) <= p.memCapacity);
}

// Samples on their natural alignment in every row, so rows can be read
// through typed pointers.
template <class Pic>
bool samplesAligned(const Pic& p)
{
    const unsigned s = p.bytesPerSample();
    return quintptr(p.data) % s == 0 && p.effectiveLinePitch() % s == 0;
}

// A picture whose rows can be walked by its linePitch without leaving its
// memory: pixels present, rows no shorter than their samples, and (when the
// memory size is known) all rows inside it.
template <class Pic>
bool isUsable(const Pic& p)
{
    if (!p.data || p.channels == 0)
        return false;
    if (p.height > 1 && quint64(p.linePitch) < p.packedLineBytes())
        return false;
    return p.memCapacity == 0 || requiredBytes(p) <= p.memCapacity;
}

template <class Format>
bool sameGeometry(const Format& a, const Format& b)
{
    return a.width == b.width && a.height == b.height;
}

// The pixel memory of the two pictures shares a byte.
template <class Pic>
bool overlaps(const Pic& a, const Pic& b)
{
    const uchar* aEnd = a.data + requiredBytes(a);
    const uchar* bEnd = b.data + requiredBytes(b);
    return a.data < bEnd && b.data < aEnd;
}

// Four interleaved channels (storage format 1) of a colour picture: the
// fourth is alpha, which colour statistics and sums leave out.
template <class Format>
bool hasMarkedAlpha(const Format& f)
{
    using Storage = std::remove_cv_t<decltype(f.storageFormat)>;
    return f.channels == 4 && f.storageFormat == Storage::DSF_PACKED && f.isColor;
}

// a + b, held at the type's limits instead of wrapping. The 32- and 64-bit
// forms find the overflow with bit operations only, which SSE2 has for every
// lane width (it lacks 64-bit compares), so the loops vectorise.
template <class A>
inline A saturatingAdd(A a, A b)
{
    if constexpr (std::is_floating_point_v<A>) {
        return a + b;
    } else if constexpr (sizeof(A) < 4) {
        const int s = int(a) + int(b);
        constexpr int lo = std::numeric_limits<A>::min(), hi = std::numeric_limits<A>::max();
        return A(s > hi ? hi : s < lo ? lo : s);
    } else if constexpr (std::is_unsigned_v<A>) {
        constexpr int top = sizeof(A) * 8 - 1;
        const A s = A(a + b);
        const A carry = A(((a & b) | ((a | b) & ~s)) >> top);
        return A(s | A(0 - carry));
    } else {
        // Overflow exactly when both operands share a sign the sum lacks; the
        // limit is the largest value of a's sign.
        using U = std::make_unsigned_t<A>;
        constexpr int top = sizeof(A) * 8 - 1;
        const U s = U(a) + U(b);
        const U overflow = ((U(a) ^ s) & (U(b) ^ s)) >> top;
        const U limit = (U(a) >> top) + U(std::numeric_limits<A>::max());
        const U mask = U(0) - overflow;
        return A((s & ~mask) | (limit & mask));
    }
}

} // namespace pixelkit
