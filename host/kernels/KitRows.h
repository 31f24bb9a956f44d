#pragma once
// The row scheduler of the picture kernels: the one place that decides
// whether a pass runs on several threads, how its rows are cut into pieces
// and which threads take them.
//
// Rows are cut into pieces and shared between the calling thread and a few
// helper threads. The caller takes pieces itself and waits only for pieces a
// helper has already started, never for a helper that has not woken up yet:
// on a loaded machine (every chain node busy) a fork/join team would wait for
// its slowest member to be scheduled at all. One pass at a time uses the
// helpers; a second caller meanwhile simply works alone, so passes may run on
// several threads at once and nothing is allocated per pass.
//
// One set of thresholds for every pass, in bytes of row traffic (what a row
// reads and writes; a kernel that is much slower than a copy per byte says so
// by passing its cost in bytes of copying):
// - below ParallelMinBytes a pass runs on the calling thread alone, since
//   waking a helper costs more than the pass;
// - a piece holds at least ChunkBytes; a frame is cut into about
//   PiecesPerSlot pieces per thread, enough to even out threads the system
//   schedules late;
// - a streaming pass's pieces hold at most MaxPieceBytes, so that the
//   threads stream neighbouring rows (memory-bound passes run measurably
//   faster so); a pass that restarts a window at each piece (Pieces::Few,
//   the median) keeps its pieces as large as the per-thread count allows.
// Callers that run inside a node, on the chain's own thread, pass
// bytesPerRow 0 and stay on that thread.
//
// Helpers: one fewer than the cores this process may run on, at most
// MaxSlots - 1; QLAR_THREADS=N in the environment caps the threads of a pass
// at N (1: no helpers). The pool is inline, so every library that uses the
// kit holds its own; it starts on first use and ends with the library.

#include <QtCore/qglobal.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sched.h>
#if defined(__x86_64__) || defined(__i386__)
#include <emmintrin.h>
#endif

namespace pixelkit {

constexpr quint64 ParallelMinBytes = 256 * 1024;
constexpr quint64 ChunkBytes = 128 * 1024;
constexpr quint64 MaxPieceBytes = 1024 * 1024;
constexpr int PiecesPerSlot = 8;
constexpr int MaxSlots = 8;

// How a pass may be cut: Many pieces for passes whose rows stand alone, Few
// for passes that re-read rows before a piece's first output, Fewer (half as
// many) for passes that rebuild a wide window at every piece.
enum class Pieces { Many, Few, Fewer };

namespace detail {

inline void cpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#else
    std::this_thread::yield();
#endif
}

class RowPool
{
public:
    static RowPool& instance()
    {
        static RowPool pool;
        return pool;
    }

    // Threads a pass may use: the caller and the helpers.
    int threadCount() const { return m_helpers + 1; }

    // fn(first, last, slot) over pieces of grain rows of [0, count); slot is
    // below maxSlots and no two running pieces share it.
    template <class PieceFn>
    void run(int count, int grain, int maxSlots, PieceFn& fn)
    {
        if (count <= 0)
            return;
        grain = std::max(grain, 1);
        const int chunks = int((qint64(count) + grain - 1) / grain);
        bool idle = false;
        if (chunks <= 1 || maxSlots <= 1 || m_helpers == 0 || !m_busy.compare_exchange_strong(idle, true)) {
            fn(0, count, 0);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_call = [](void* body, int first, int last, int slot) {
                (*static_cast<PieceFn*>(body))(first, last, slot);
            };
            m_body = &fn;
            m_count = count;
            m_grain = grain;
            m_chunks = chunks;
            m_maxSlots = maxSlots;
            m_nextSlot = 1;
            m_next.store(0);
            m_open = true;
            m_generation.fetch_add(1);
        }
        m_wake.notify_all();
        // A piece that throws (on any thread) ends the pass early; the pass is
        // still closed and waited for before the exception goes on.
        std::exception_ptr error;
        try {
            work(0);
        } catch (...) {
            error = std::current_exception();
            m_next.store(m_chunks);
        }
        // No piece is left to start: close the pass to late helpers and wait
        // for those inside it. A helper still busy is usually a piece away
        // from done, so spin briefly before sleeping; a sleeping caller may
        // wait a whole time slice to be woken.
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_open = false;
        }
        for (int spin = 0; spin < 4096 && m_active.load() != 0; ++spin) {
            if (spin < 2048)
                cpuRelax();
            else
                std::this_thread::yield();
        }
        {
            std::unique_lock<std::mutex> lock(m_lock);
            m_left.wait(lock, [&] { return m_active.load() == 0; });
            if (!error)
                error = m_error;
            m_error = nullptr;
        }
        m_busy.store(false);
        if (error)
            std::rethrow_exception(error);
    }

private:
    // Plain POSIX threads: std::thread would instantiate library templates
    // that every library using the kit would then export.
    RowPool()
    {
        for (int i = helperCount(); m_helpers < i;) {
            if (pthread_create(&m_threads[m_helpers], nullptr, &RowPool::helperMain, this) != 0)
                break;  // fewer helpers; passes still complete on the caller
            ++m_helpers;
        }
    }
    ~RowPool()
    {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_stop = true;
        }
        m_wake.notify_all();
        for (int i = 0; i < m_helpers; ++i)
            pthread_join(m_threads[i], nullptr);
    }

    static int helperCount()
    {
        // The cores this process may run on: a container or taskset may
        // allow fewer than the machine has.
        int cores = std::max(1, int(std::thread::hardware_concurrency()));
        cpu_set_t set;
        if (sched_getaffinity(0, sizeof set, &set) == 0)
            cores = std::max(1, CPU_COUNT(&set));
        if (const char* cap = std::getenv("QLAR_THREADS")) {
            const int n = std::atoi(cap);
            if (n > 0)
                cores = std::min(cores, n);
        }
        return std::clamp(cores - 1, 0, MaxSlots - 1);
    }

    void work(int slot)
    {
        for (;;) {
            const int c = m_next.fetch_add(1);
            if (c >= m_chunks)
                return;
            const int first = c * m_grain;
            m_call(m_body, first, std::min(m_count, first + m_grain), slot);
        }
    }

    static void* helperMain(void* pool)
    {
        static_cast<RowPool*>(pool)->helperLoop();
        return nullptr;
    }

    void helperLoop()
    {
        quint64 seen = 0;
        for (;;) {
            // Frames of a running chain follow each other closely: stay awake
            // for a few tens of microseconds, as waking a sleeping thread
            // costs about as much as a small frame's whole share.
            for (int spin = 0; spin < 2048 && m_generation.load(std::memory_order_relaxed) == seen; ++spin)
                cpuRelax();
            int slot = 0;
            {
                std::unique_lock<std::mutex> lock(m_lock);
                m_wake.wait(lock, [&] { return m_stop || m_generation.load() != seen; });
                if (m_stop)
                    return;
                seen = m_generation.load();
                if (!m_open || m_nextSlot >= m_maxSlots)
                    continue;
                slot = m_nextSlot++;
                m_active.fetch_add(1);
            }
            std::exception_ptr error;
            try {
                work(slot);
            } catch (...) {
                error = std::current_exception();
                m_next.store(m_chunks);
            }
            {
                std::lock_guard<std::mutex> lock(m_lock);
                if (error && !m_error)
                    m_error = error;
                if (m_active.fetch_sub(1) == 1)
                    m_left.notify_all();
            }
        }
    }

    pthread_t m_threads[MaxSlots - 1] = {};
    int m_helpers = 0;
    std::mutex m_lock;
    std::condition_variable m_wake;
    std::condition_variable m_left;
    std::atomic<bool> m_busy{false};
    std::atomic<quint64> m_generation{0};
    std::atomic<int> m_next{0};
    std::atomic<int> m_active{0};
    // The pass: set under m_lock while no helper is inside one.
    void (*m_call)(void*, int, int, int) = nullptr;
    void* m_body = nullptr;
    int m_count = 0, m_grain = 1, m_chunks = 0, m_maxSlots = 1, m_nextSlot = 1;
    bool m_open = false;
    bool m_stop = false;
    std::exception_ptr m_error;  // the first a helper met in this pass
};

} // namespace detail

inline bool rowsRunInParallel(quint32 height, quint64 bytesPerRow)
{
    return height > 1 && quint64(height) * bytesPerRow >= ParallelMinBytes;
}

// Threads a pass over these rows uses: 1 below the threshold, otherwise
// the caller and every helper. Per-thread scratch is sized by this.
inline int threadSlots()
{
    return detail::RowPool::instance().threadCount();
}

inline int slotsFor(quint32 height, quint64 bytesPerRow)
{
    return rowsRunInParallel(height, bytesPerRow) ? threadSlots() : 1;
}

// Rows per piece.
inline int rowChunk(quint32 height, quint64 bytesPerRow, int threads, Pieces pieces = Pieces::Many)
{
    const quint64 row = qMax<quint64>(bytesPerRow, 1);
    const quint64 byBytes = qBound<quint64>(1, ChunkBytes / row, 1024);
    const quint64 perSlot = pieces == Pieces::Fewer ? PiecesPerSlot / 2 : PiecesPerSlot;
    const quint64 bySlots = (quint64(height) + perSlot * threads - 1) / (perSlot * threads);
    const quint64 cap = pieces == Pieces::Many ? qMax<quint64>(1, MaxPieceBytes / row) : bySlots;
    return int(qMax(byBytes, qMin(bySlots, cap)));
}

// pieceFn(first, last, slot) over pieces [first, last) of [0, height); slot
// is below slotsFor(height, bytesPerRow) and no two pieces running at once
// share it, so it may index per-thread scratch. Pieces are counted in int:
// every caller's height is an int already.
template <class PieceFn>
void forEachRowPiece(int height, quint64 bytesPerRow, PieceFn&& pieceFn, Pieces pieces = Pieces::Many)
{
    if (height <= 0)
        return;
    const int threads = slotsFor(quint32(height), bytesPerRow);
    if (threads <= 1) {
        pieceFn(0, height, 0);
        return;
    }
    detail::RowPool::instance().run(height, rowChunk(quint32(height), bytesPerRow, threads, pieces), threads, pieceFn);
}

// rowFn(y) for every row y of [0, height).
template <class RowFn>
void forEachRow(quint32 height, quint64 bytesPerRow, RowFn&& rowFn)
{
    if (height > quint32(INT_MAX)) {  // beyond any picture the limits allow; kept whole
        for (quint32 y = 0; y < height; ++y)
            rowFn(y);
        return;
    }
    forEachRowPiece(int(height), bytesPerRow, [&](int first, int last, int) {
        for (int y = first; y < last; ++y)
            rowFn(quint32(y));
    });
}

// The same for passes that fold rows into one answer: every thread folds
// its rows into its own copy of result with rowFn(local, y), and the copies
// are merged into result in thread order with merge(result, local). result
// must hold the fold's identity (nothing counted yet): every copy starts
// from it.
template <class Local, class RowFn, class MergeFn>
void forEachRowFolding(quint32 height, quint64 bytesPerRow, Local& result, RowFn&& rowFn, MergeFn&& merge)
{
    const int threads = slotsFor(height, bytesPerRow);
    if (threads <= 1 || height > quint32(INT_MAX)) {
        for (quint32 y = 0; y < height; ++y)
            rowFn(result, y);
        return;
    }
    std::vector<Local> locals(size_t(threads), result);
    forEachRowPiece(int(height), bytesPerRow, [&](int first, int last, int slot) {
        for (int y = first; y < last; ++y)
            rowFn(locals[size_t(slot)], quint32(y));
    });
    for (const Local& local : locals)
        merge(result, local);
}

} // namespace pixelkit
