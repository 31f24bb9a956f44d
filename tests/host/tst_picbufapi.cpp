#include <CxImageData.h>

#include <PictureKit.h>

#include <QtTest/QtTest>

#include <atomic>
#include <mutex>
#include <set>
#include <thread>

namespace {
SxPicBufInfo withPitch(SxPicBufInfo f, quint32 pitch)
{
    f.linePitch = pitch;
    return f;
}
} // namespace
using kit::format;

struct SxPitchCase { int type; uint channels; uint width; uint askedPitch; uint pitch; };
Q_DECLARE_METATYPE(SxPitchCase)

class TstPicBufApi : public QObject
{
    Q_OBJECT
private slots:
    void cleanup()
    {
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 0);
        QCOMPARE(CxPicBufAPI::LivePoolCount(), 0);
    }

    void heapPitch_data()
    {
        QTest::addColumn<SxPitchCase>("row");
        QTest::newRow("u8 packed odd width") << SxPitchCase{int(IDT_UINT8), 1u, 7u, 0u, 7u};
        QTest::newRow("u16 rgb") << SxPitchCase{int(IDT_UINT16), 3u, 5u, 0u, 30u};
        QTest::newRow("f32 kept pitch") << SxPitchCase{int(IDT_FLOAT), 1u, 3u, 64u, 64u};
        QTest::newRow("s64") << SxPitchCase{int(IDT_INT64), 2u, 3u, 0u, 48u};
        QTest::newRow("unknown type counts one byte") << SxPitchCase{77, 1u, 9u, 0u, 9u};
    }
    void heapPitch()
    {
        QFETCH(SxPitchCase, row);
        const auto& [type, channels, width, askedPitch, pitch] = row;
        SxPicBuf p;
        QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(p, withPitch(format(width, 3, channels, ExImageDataType(type)), askedPitch), true, 0));
        QCOMPARE(p.linePitch, pitch);
        QCOMPARE(quintptr(p.data) % 64, quintptr(0));
        QVERIFY(p.memCapacity >= p.dataSize());
        for (quint64 i = 0; i < p.dataSize(); ++i)
            QCOMPARE(p.data[i], uchar(0));
        CxPicBufAPI::FreePicBuf(p, true);
        QVERIFY(!p.data);
        QCOMPARE(p.width, 0u);
        CxPicBufAPI::FreePicBuf(p, true);  // a picture without memory is fine
    }

    void heapRefusesImpossibleFormats()
    {
        SxPicBuf p;
        QVERIFY(!CxPicBufAPI::AllocPicBufFromHeap(p, withPitch(format(10, 2, 1, IDT_UINT16), 8), false, 0));  // pitch < row
        QVERIFY(!CxPicBufAPI::AllocPicBufFromHeap(p, format(1u << 20, 1u << 20, 1, IDT_FLOAT), false, 0));
        QVERIFY(!p.data);
    }

    void poolExhaustionAndReturn()
    {
        void* pool = CxPicBufAPI::CreateMemoryPool(format(16, 4), 2, "t");
        SxPicBuf a, b, c;
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, a, format(16, 4), false));
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, b, format(16, 4), false));
        QVERIFY(a.data != b.data);
        QVERIFY(!CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, c, format(16, 4), false));
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 2);

        // Deleting the packet that holds a picture gives it back.
        auto* packet = new CxImageData;
        packet->setPicBuf(a);
        delete packet;
        QCOMPARE(CxPicBufAPI::MemoryPoolFreeCount(pool), 1);
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, c, format(16, 4), false));
        QCOMPARE(c.data, a.data);

        // A picture released twice must not be handed out twice.
        SxPicBuf copy = b;
        CxPicBufAPI::FreePicBuf(b, false);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("returned twice"));
        CxPicBufAPI::FreePicBuf(copy, false);
        QCOMPARE(CxPicBufAPI::MemoryPoolFreeCount(pool), 1);

        CxPicBufAPI::FreePicBuf(c, false);
        CxPicBufAPI::ReleaseMemoryPool(pool);
    }

    void poolOutlivedByItsPictures()
    {
        void* pool = CxPicBufAPI::CreateMemoryPool(format(8, 8), 1, "t");
        SxPicBuf a;
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, a, format(8, 8), false));
        CxPicBufAPI::ReleaseMemoryPool(pool);
        QCOMPARE(CxPicBufAPI::LivePoolCount(), 1);
        std::memset(a.data, 0x5a, size_t(a.dataSize()));  // still ours to write
        CxPicBufAPI::FreePicBuf(a, false);
        QCOMPARE(CxPicBufAPI::LivePoolCount(), 0);
    }

    void poolFormatChanges()
    {
        void* pool = CxPicBufAPI::CreateMemoryPool(format(8, 4), 1, "t");
        SxPicBuf p;
        // Smaller formats fit in a slot; the pitch is computed.
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, p, format(5, 3), false));
        QCOMPARE(p.linePitch, 5u);
        CxPicBufAPI::FreePicBuf(p, false);
        // A picture of height 0 is legal and holds no rows.
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, p, format(8, 0), false));
        QVERIFY(p.data);
        QCOMPARE(p.dataSize(), quint64(0));
        CxPicBufAPI::FreePicBuf(p, false);
        // A larger one only when growing is allowed.
        QVERIFY(!CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, p, format(64, 64), false));
        QCOMPARE(CxPicBufAPI::MemoryPoolFreeCount(pool), 1);
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, p, format(64, 64), true));
        QVERIFY(p.memCapacity >= 64 * 64);
        std::memset(p.data, 1, 64 * 64);
        CxPicBufAPI::FreePicBuf(p, false);
        QVERIFY(!CxPicBufAPI::AllocPicBufFromPool(nullptr, nullptr, p, format(8, 4), false));
        CxPicBufAPI::ReleaseMemoryPool(pool);
    }

    void poolIsThreadSafe()
    {
        const int slotCount = 4;
        void* pool = CxPicBufAPI::CreateMemoryPool(format(32, 32), slotCount, "t");
        std::atomic<int> held{0}, maxHeld{0}, clash{0};
        std::mutex m;
        std::set<uchar*> inUse;
        auto worker = [&] {
            for (int i = 0; i < 20000; ++i) {
                SxPicBuf p;
                if (!CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, p, format(32, 32), false))
                    continue;
                {
                    std::lock_guard<std::mutex> l(m);
                    if (!inUse.insert(p.data).second)
                        ++clash;
                }
                const int h = ++held;
                int mh = maxHeld.load();
                while (h > mh && !maxHeld.compare_exchange_weak(mh, h)) {}
                --held;
                {
                    std::lock_guard<std::mutex> l(m);
                    inUse.erase(p.data);
                }
                CxPicBufAPI::FreePicBuf(p, false);
            }
        };
        std::thread t1(worker), t2(worker), t3(worker);
        t1.join();
        t2.join();
        t3.join();
        QCOMPARE(clash.load(), 0);
        QVERIFY(maxHeld.load() <= slotCount);
        QCOMPARE(CxPicBufAPI::MemoryPoolFreeCount(pool), slotCount);
        CxPicBufAPI::ReleaseMemoryPool(pool);
    }

    void copyPicBuf_data()
    {
        QTest::addColumn<uint>("srcPitch");
        QTest::addColumn<bool>("dstHasMemory");
        QTest::newRow("packed into nothing") << 0u << false;
        QTest::newRow("padded into nothing") << 40u << false;
        QTest::newRow("padded into big enough heap") << 40u << true;
    }
    void copyPicBuf()
    {
        QFETCH(uint, srcPitch);
        QFETCH(bool, dstHasMemory);
        SxPicBuf src, dst;
        QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(src, withPitch(format(11, 5, 1, IDT_UINT16), srcPitch), false, 0));
        for (quint32 y = 0; y < 5; ++y)
            for (quint32 x = 0; x < 11; ++x)
                src.row<quint16>(y)[x] = quint16(y * 1000 + x);
        src.frameNumber = 42;
        src.exposureTimeUs = 3.5f;
        if (dstHasMemory)
            QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(dst, format(40, 40), false, 0));
        QVERIFY(CxPicBufAPI::CopyPicBuf(dst, src, true));
        QCOMPARE(dst.width, 11u);
        QCOMPARE(dst.dataType, IDT_UINT16);
        QCOMPARE(dst.frameNumber, 42);
        QCOMPARE(dst.exposureTimeUs, 3.5f);
        for (quint32 y = 0; y < 5; ++y)
            for (quint32 x = 0; x < 11; ++x)
                QCOMPARE(dst.row<quint16>(y)[x], quint16(y * 1000 + x));
        CxPicBufAPI::FreePicBuf(src, true);
        CxPicBufAPI::FreePicBuf(dst, true);
    }

    void copyPicBufRefusals()
    {
        SxPicBuf src, dst, empty;
        QVERIFY(CxPicBufAPI::AllocPicBufFromHeap(src, format(64, 64), false, 0));
        QVERIFY(!CxPicBufAPI::CopyPicBuf(dst, empty, true));   // nothing to copy
        QVERIFY(!CxPicBufAPI::CopyPicBuf(dst, src, false));    // no room, may not allocate
        void* pool = CxPicBufAPI::CreateMemoryPool(format(8, 8), 1, "t");
        QVERIFY(CxPicBufAPI::AllocPicBufFromPool(pool, nullptr, dst, format(8, 8), false));
        QVERIFY(!CxPicBufAPI::CopyPicBuf(dst, src, true));     // pool memory is never swapped
        QCOMPARE(dst.memOrigin, SxPicBuf::MemPool);
        CxPicBufAPI::FreePicBuf(dst, false);
        CxPicBufAPI::ReleaseMemoryPool(pool);
        CxPicBufAPI::FreePicBuf(src, true);
    }

};

QTEST_GUILESS_MAIN(TstPicBufApi)
#include "tst_picbufapi.moc"
