#pragma once
// The row scheduler of the picture kernels.
//
// Below ParallelMinBytes of traffic a frame is done on the calling thread:
// waking the OpenMP team costs more than the pass itself. Rows are handed
// out in chunks of about ChunkBytes as threads come free, so a thread the
// system is slow to schedule holds up the frame by one chunk at most.
// Callers that run inside a node, on the chain's own thread, pass
// bytesPerRow 0 and stay on that thread.

#include <QtCore/qglobal.h>

namespace pixelkit {

constexpr quint64 ParallelMinBytes = 256 * 1024;
constexpr quint64 ChunkBytes = 128 * 1024;

inline bool rowsRunInParallel(quint32 height, quint64 bytesPerRow)
{
    return height > 1 && quint64(height) * bytesPerRow >= ParallelMinBytes;
}

// Rows per chunk handed to one thread.
inline int rowChunk(quint64 bytesPerRow)
{
    return int(qBound<quint64>(1, ChunkBytes / qMax<quint64>(bytesPerRow, 1), 1024));
}

// rowFn(y) for every row y of [0, height).
template <class RowFn>
void forEachRow(quint32 height, quint64 bytesPerRow, RowFn&& rowFn)
{
    const qint64 h = qint64(height);
    if (rowsRunInParallel(height, bytesPerRow)) {
        const int chunk = rowChunk(bytesPerRow);
#pragma omp parallel for schedule(dynamic, chunk)
        for (qint64 y = 0; y < h; ++y)
            rowFn(quint32(y));
    } else {
        for (qint64 y = 0; y < h; ++y)
            rowFn(quint32(y));
    }
}

// The same for passes that fold rows into one answer: every thread folds
// its rows into its own copy of init with rowFn(local, y), and the copies
// are merged into result one at a time with merge(result, local).
template <class Local, class RowFn, class MergeFn>
void forEachRowFolding(quint32 height, quint64 bytesPerRow, Local& result, RowFn&& rowFn, MergeFn&& merge)
{
    const qint64 h = qint64(height);
    if (rowsRunInParallel(height, bytesPerRow)) {
        const Local init = result;
        const int chunk = rowChunk(bytesPerRow);
#pragma omp parallel
        {
            Local local = init;
#pragma omp for schedule(dynamic, chunk) nowait
            for (qint64 y = 0; y < h; ++y)
                rowFn(local, quint32(y));
            // Unnamed: a named lock would be a symbol every library exports.
#pragma omp critical
            merge(result, local);
        }
    } else {
        for (qint64 y = 0; y < h; ++y)
            rowFn(result, quint32(y));
    }
}

} // namespace pixelkit
