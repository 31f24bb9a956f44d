#pragma once
// Internal to the median operation: comparator networks built by the
// compiler. Batcher's odd-even merge sort and merge are laid out for a power
// of two of wires; padding wires hold -inf or +inf, and every comparator
// whose outcome the padding decides is resolved while the network is built
// (its wires are renamed instead). Comparators that cannot reach a wanted
// output are dropped, and those of which only one output is wanted become a
// single min or max.
#include <cstddef>
#include <utility>

namespace median {
namespace net {

// a gets the smaller value and b the larger; MinOnly and MaxOnly write only
// the one that is wanted.
enum OpKind : signed char { Both, MinOnly, MaxOnly };
struct Op
{
    short a = 0, b = 0;
    OpKind kind = Both;
};

constexpr int pow2AtLeast(int n)
{
    int p = 1;
    while (p < n)
        p *= 2;
    return p;
}
constexpr int log2Of(int p)
{
    int l = 0;
    while ((1 << l) < p)
        ++l;
    return l;
}

// Upper bounds of Batcher's comparator counts: merging two runs of p, and
// sorting p.
constexpr int mergeOpsBound(int p) { return p * (log2Of(p) + 1) + 1; }
constexpr int sortOpsBound(int p) { return p * (log2Of(p) * log2Of(p) + 4) / 4 + 1; }

enum Fill : signed char { Low = -1, Value = 0, High = 1 };

template <int Wires, int MaxOps>
struct Builder
{
    short slotOf[Wires] = {};  // logical wire -> slot holding its value
    Fill fill[Wires] = {};     // per slot
    Op ops[MaxOps] = {};
    int count = 0;

    constexpr void compare(int i, int j)
    {
        const int si = slotOf[i], sj = slotOf[j];
        if (fill[si] == Low || fill[sj] == High)
            return;
        if (fill[si] == High || fill[sj] == Low) {
            slotOf[i] = short(sj);
            slotOf[j] = short(si);
            return;
        }
        ops[count++] = Op{short(si), short(sj), Both};
    }
    // Merges the sorted halves of the n wires from lo, comparing wires r apart.
    constexpr void merge(int lo, int n, int r)
    {
        const int step = r * 2;
        if (step < n) {
            merge(lo, n, step);
            merge(lo + r, n, step);
            for (int i = lo + r; i + r < lo + n; i += step)
                compare(i, i + r);
        } else {
            compare(lo, lo + r);
        }
    }
    constexpr void sort(int lo, int n)
    {
        if (n > 1) {
            sort(lo, n / 2);
            sort(lo + n / 2, n / 2);
            merge(lo, n, 1);
        }
    }
};

template <int MaxOps, int Outs>
struct Network
{
    Op ops[MaxOps] = {};
    int count = 0;
    short out[Outs] = {};  // slot of the wanted output ranks, in rank order
};

// Keeps the comparators that feed the wanted outputs, renumbering the slots
// that hold values (inputs) to 0 .. inputs - 1 in the order given.
template <int Outs, int Wires, int MaxOps>
constexpr Network<MaxOps, Outs> prune(const Builder<Wires, MaxOps>& b, const short (&inputSlot)[Wires], int firstOut)
{
    Network<MaxOps, Outs> n;
    short dense[Wires] = {};
    for (int s = 0; s < Wires; ++s)
        dense[s] = inputSlot[s];
    bool live[Wires] = {};
    for (int t = 0; t < Outs; ++t)
        live[b.slotOf[firstOut + t]] = true;
    Op kept[MaxOps] = {};
    int k = 0;
    for (int i = b.count - 1; i >= 0; --i) {
        const Op o = b.ops[i];
        if (!live[o.a] && !live[o.b])
            continue;
        const OpKind kind = live[o.a] && live[o.b] ? Both : live[o.a] ? MinOnly : MaxOnly;
        kept[k++] = Op{dense[o.a], dense[o.b], kind};
        live[o.a] = live[o.b] = true;
    }
    for (int i = 0; i < k; ++i)
        n.ops[i] = kept[k - 1 - i];
    n.count = k;
    for (int t = 0; t < Outs; ++t)
        n.out[t] = dense[b.slotOf[firstOut + t]];
    return n;
}

// Sorts n values held in slots 0 .. n - 1.
template <int N>
constexpr auto sortNetwork()
{
    constexpr int P = pow2AtLeast(N);
    Builder<P, sortOpsBound(P)> b;
    short inputSlot[P] = {};
    for (int s = 0; s < P; ++s) {
        b.slotOf[s] = short(s);
        b.fill[s] = s < N ? Value : High;
        inputSlot[s] = short(s < N ? s : 0);
    }
    b.sort(0, P);
    return prune<N>(b, inputSlot, 0);
}

// Merges sorted runs of A values (slots 0 .. A - 1) and B values (slots
// A .. A + B - 1), wanting ranks Lo .. Hi of the result.
template <int A, int B, int Lo, int Hi>
constexpr auto mergeNetwork()
{
    constexpr int P = pow2AtLeast(A > B ? A : B);
    Builder<2 * P, mergeOpsBound(P)> b;
    short inputSlot[2 * P] = {};
    for (int s = 0; s < 2 * P; ++s) {
        b.slotOf[s] = short(s);
        // A sits at the top of its half behind -inf, B at the bottom of its half before +inf.
        const bool inA = s < P && s >= P - A, inB = s >= P && s < P + B;
        b.fill[s] = inA || inB ? Value : (s < P ? Low : High);
        inputSlot[s] = short(inA ? s - (P - A) : inB ? A + s - P : 0);
    }
    b.merge(0, 2 * P, 1);
    return prune<Hi - Lo + 1>(b, inputSlot, P - A + Lo);
}

// Trimmed to their true length, so each holder keeps only what it runs.
template <int MaxOps, int Outs, int Count>
constexpr Network<Count == 0 ? 1 : Count, Outs> shrink(const Network<MaxOps, Outs>& n)
{
    Network<Count == 0 ? 1 : Count, Outs> s;
    for (int i = 0; i < Count; ++i)
        s.ops[i] = n.ops[i];
    s.count = Count;
    for (int t = 0; t < Outs; ++t)
        s.out[t] = n.out[t];
    return s;
}

template <int N>
struct SortNet
{
    static constexpr auto full = sortNetwork<N>();
    static constexpr auto net = shrink<sizeof(full.ops) / sizeof(Op), N, full.count>(full);
};

template <int A, int B, int Lo, int Hi>
struct MergeNet
{
    static constexpr auto full = mergeNetwork<A, B, Lo, Hi>();
    static constexpr auto net = shrink<sizeof(full.ops) / sizeof(Op), Hi - Lo + 1, full.count>(full);
};

} // namespace net
} // namespace median
