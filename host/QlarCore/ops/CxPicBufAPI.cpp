#include "CxPicBufAPI.h"

#include <QtCore/QLoggingCategory>
#include <QtCore/QMutex>
#include <QtCore/QObject>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

Q_LOGGING_CATEGORY(lcPicBuf, "qlar.picbuf")

// Formats from files, settings and sensor descriptions can be absurd; refuse
// them instead of asking the allocator for terabytes. 8 GiB a picture unless
// QLAR_MAX_PICTURE_BYTES says otherwise (the fuzz targets lower it).
quint64 maxPictureBytes()
{
    static const quint64 limit = [] {
        bool ok = false;
        const quint64 value = qEnvironmentVariable("QLAR_MAX_PICTURE_BYTES").toULongLong(&ok);
        return ok && value > 0 ? value : quint64(8) << 30;
    }();
    return limit;
}
constexpr quint64 Alignment = 64;

std::atomic<qint64> g_outstanding{0};
std::atomic<qint64> g_livePools{0};

uchar* alignedAlloc(quint64 bytes)
{
    const quint64 rounded = qMax<quint64>(Alignment, (bytes + Alignment - 1) / Alignment * Alignment);
    return static_cast<uchar*>(std::aligned_alloc(Alignment, size_t(rounded)));
}

// The pitch a picture of this format gets, and the bytes it needs; false when
// the format cannot be laid out (pitch shorter than a row, or too big).
bool layout(const SxPicBufInfo& f, quint32& pitch, quint64& bytes)
{
    const quint64 packed = f.packedLineBytes();
    const quint64 p = f.linePitch ? quint64(f.linePitch) : packed;
    if (p < packed || p > 0xffffffffull)
        return false;
    bytes = p * f.height;
    if (bytes > maxPictureBytes())
        return false;
    pitch = quint32(p);
    return true;
}

struct Pool;

struct PoolSlot
{
    Pool* pool = nullptr;
    uchar* mem = nullptr;
    quint64 capacity = 0;
    bool inUse = false;
};

struct Pool
{
    QMutex lock;
    QString name;
    std::vector<PoolSlot*> allSlots;
    std::vector<PoolSlot*> freeSlots;
    int refs = 1;  // the owner's reference plus one per slot handed out
    bool closed = false;

    ~Pool()
    {
        for (PoolSlot* s : allSlots) {
            std::free(s->mem);
            delete s;
        }
        --g_livePools;
    }
};

void dropRef(Pool* pool, QMutexLocker<QMutex>& locker)
{
    if (--pool->refs == 0) {
        locker.unlock();
        delete pool;
    }
}

void releaseSlot(PoolSlot* slot)
{
    Pool* pool = slot->pool;
    QMutexLocker locker(&pool->lock);
    if (!slot->inUse) {
        qCWarning(lcPicBuf) << "pool picture of" << pool->name << "returned twice; ignored";
        return;
    }
    slot->inUse = false;
    --g_outstanding;
    if (pool->closed) {
        std::free(slot->mem);
        slot->mem = nullptr;
        slot->capacity = 0;
    } else {
        pool->freeSlots.push_back(slot);
    }
    dropRef(pool, locker);
}

void resetFrameFields(SxPicBuf& pic)
{
    pic.frameNumber = 0;
    pic.exposureTimeUs = 0.f;
    pic.timestampMs = 0;
    pic.floatMin = pic.floatMax = 0.f;
    pic.attachments.clear();
}

void forgetMemory(SxPicBuf& pic)
{
    pic.data = nullptr;
    pic.memBlock = nullptr;
    pic.memCapacity = 0;
    pic.memOrigin = SxPicBuf::MemNone;
}

} // namespace

bool CxPicBufAPI::AllocPicBufFromPool(void* poolHandle, QObject* owner, SxPicBuf& pic,
                                      const SxPicBufInfo& format, bool growIfNeeded)
{
    Q_UNUSED(owner);
    if (!poolHandle)
        return false;
    quint32 pitch = 0;
    quint64 bytes = 0;
    if (!layout(format, pitch, bytes))
        return false;

    Pool* pool = static_cast<Pool*>(poolHandle);
    QMutexLocker locker(&pool->lock);
    if (pool->closed || pool->freeSlots.empty())
        return false;
    PoolSlot* slot = pool->freeSlots.back();
    if (slot->capacity < bytes) {
        if (!growIfNeeded)
            return false;
        uchar* mem = alignedAlloc(bytes);
        if (!mem)
            return false;
        std::free(slot->mem);
        slot->mem = mem;
        slot->capacity = bytes;
    }
    pool->freeSlots.pop_back();
    slot->inUse = true;
    ++pool->refs;
    ++g_outstanding;
    locker.unlock();

    pic.setPicFormat(format);
    pic.linePitch = pitch;
    pic.data = slot->mem;
    pic.memBlock = slot;
    pic.memCapacity = slot->capacity;
    pic.memOrigin = SxPicBuf::MemPool;
    resetFrameFields(pic);
    return true;
}

bool CxPicBufAPI::AllocPicBufFromHeap(SxPicBuf& pic, const SxPicBufInfo& format, bool clear,
                                      unsigned long minBytes)
{
    quint32 pitch = 0;
    quint64 bytes = 0;
    if (!layout(format, pitch, bytes))
        return false;
    bytes = qMax<quint64>(bytes, minBytes);
    if (bytes > maxPictureBytes())
        return false;
    uchar* mem = alignedAlloc(bytes);
    if (!mem) {
        qCCritical(lcPicBuf) << "out of memory for a picture of" << bytes << "bytes";
        return false;
    }
    if (clear)
        std::memset(mem, 0, size_t(bytes));
    pic.setPicFormat(format);
    pic.linePitch = pitch;
    pic.data = mem;
    pic.memBlock = mem;
    pic.memCapacity = bytes;
    pic.memOrigin = SxPicBuf::MemHeap;
    resetFrameFields(pic);
    return true;
}

bool CxPicBufAPI::AllocPicBufFromHeap(SxPicBuf& pic, unsigned int width, unsigned int height,
                                      unsigned int channels, ExImageDataType dataType,
                                      unsigned int bitsPerSample, unsigned int linePitch,
                                      unsigned int userFlags, ExDataStorageFormat storageFormat,
                                      ExColorFilterArray colorFilterArray, bool isColor, bool clear,
                                      unsigned long minBytes)
{
    SxPicBufInfo f;
    f.width = width;
    f.height = height;
    f.channels = channels;
    f.dataType = dataType;
    f.bitsPerSample = bitsPerSample ? bitsPerSample : bytesPerSampleOf(dataType) * 8;
    f.linePitch = linePitch;
    f.userFlags = userFlags;
    f.storageFormat = storageFormat;
    f.colorFilterArray = colorFilterArray;
    f.isColor = isColor;
    return AllocPicBufFromHeap(pic, f, clear, minBytes);
}

void CxPicBufAPI::FreePicBuf(SxPicBuf& pic, bool resetFormat)
{
    switch (pic.memOrigin) {
    case SxPicBuf::MemHeap:
        std::free(pic.memBlock);
        break;
    case SxPicBuf::MemPool:
        if (pic.memBlock)
            releaseSlot(static_cast<PoolSlot*>(pic.memBlock));
        break;
    default:
        break;
    }
    forgetMemory(pic);
    if (resetFormat)
        pic.setPicFormat(SxPicBufInfo());
}

bool CxPicBufAPI::CopyPicBuf(SxPicBuf& dst, const SxPicBuf& src, bool allowAlloc)
{
    if (&dst == &src)
        return true;
    if (!src.data)
        return false;
    quint32 pitch = 0;
    quint64 bytes = 0;
    if (!layout(src, pitch, bytes))
        return false;
    if (!dst.data || dst.memCapacity < bytes) {
        // Pool and borrowed memory belong to someone else and cannot be swapped.
        if (!allowAlloc || dst.memOrigin == SxPicBuf::MemPool || dst.memOrigin == SxPicBuf::MemBorrowed)
            return false;
        FreePicBuf(dst, false);
        if (!AllocPicBufFromHeap(dst, src, false, 0))
            return false;
    }
    dst.setPicFormat(src);
    dst.linePitch = pitch;
    const quint64 row = src.packedLineBytes();
    if (pitch == src.linePitch) {
        // What the source holds: nothing at all for a picture 0 samples wide.
        std::memcpy(dst.data, src.data, size_t(src.requiredBytes()));
    } else {
        for (quint32 y = 0; y < src.height; ++y)
            std::memcpy(dst.rowPtr(y), src.rowPtr(y), size_t(row));
    }
    dst.exposureTimeUs = src.exposureTimeUs;
    dst.timestampMs = src.timestampMs;
    dst.floatMin = src.floatMin;
    dst.floatMax = src.floatMax;
    dst.copyPicAdditionalData(src);
    return true;
}

bool CxPicBufAPI::WrapPicBuf(SxPicBuf& pic, const SxPicBufInfo& format, void* data, quint64 bytes)
{
    quint32 pitch = 0;
    quint64 need = 0;
    if (!data || !layout(format, pitch, need) || bytes < format.requiredBytes())
        return false;
    pic.setPicFormat(format);
    pic.linePitch = pitch;
    pic.data = static_cast<uchar*>(data);
    pic.memBlock = nullptr;
    pic.memCapacity = bytes;
    pic.memOrigin = SxPicBuf::MemBorrowed;
    return true;
}

void* CxPicBufAPI::CreateMemoryPool(const SxPicBufInfo& format, int count, const QString& name)
{
    quint32 pitch = 0;
    quint64 bytes = 0;
    if (!layout(format, pitch, bytes))
        return nullptr;
    auto* pool = new Pool;
    ++g_livePools;
    pool->name = name;
    for (int i = 0; i < count; ++i) {
        auto* slot = new PoolSlot;
        slot->pool = pool;
        slot->mem = alignedAlloc(bytes);
        slot->capacity = slot->mem ? bytes : 0;
        if (!slot->mem) {
            qCCritical(lcPicBuf) << "out of memory filling the pool of" << name;
            delete slot;
            delete pool;
            return nullptr;
        }
        pool->allSlots.push_back(slot);
        pool->freeSlots.push_back(slot);
    }
    // Hand out the lowest slot first; it keeps the order predictable in logs.
    std::reverse(pool->freeSlots.begin(), pool->freeSlots.end());
    return pool;
}

void CxPicBufAPI::ReleaseMemoryPool(void* poolHandle)
{
    if (!poolHandle)
        return;
    Pool* pool = static_cast<Pool*>(poolHandle);
    QMutexLocker locker(&pool->lock);
    pool->closed = true;
    for (PoolSlot* s : pool->freeSlots) {
        std::free(s->mem);
        s->mem = nullptr;
        s->capacity = 0;
    }
    pool->freeSlots.clear();
    dropRef(pool, locker);
}

int CxPicBufAPI::MemoryPoolSize(void* poolHandle)
{
    if (!poolHandle)
        return 0;
    Pool* pool = static_cast<Pool*>(poolHandle);
    QMutexLocker locker(&pool->lock);
    return int(pool->allSlots.size());
}

int CxPicBufAPI::MemoryPoolFreeCount(void* poolHandle)
{
    if (!poolHandle)
        return 0;
    Pool* pool = static_cast<Pool*>(poolHandle);
    QMutexLocker locker(&pool->lock);
    return int(pool->freeSlots.size());
}

qint64 CxPicBufAPI::OutstandingPoolPictures() { return g_outstanding.load(); }
qint64 CxPicBufAPI::LivePoolCount() { return g_livePools.load(); }
