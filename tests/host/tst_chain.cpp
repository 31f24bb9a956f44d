#include "TestNodes.h"

#include <QtTest/QtTest>

#include <atomic>

#include <mutex>
#include <vector>

namespace {

CxSyntheticCamera::SxConfig cameraConfig(qint64 frames, quint32 w = 32, quint32 h = 16)
{
    CxSyntheticCamera::SxConfig c;
    c.layout = CxSyntheticCamera::LayoutMono;
    c.width = w;
    c.height = h;
    c.frameLimit = frames;
    return c;
}

// Collects what leaves a live chain, on the chain's thread.
struct Collector
{
    std::mutex m;
    std::vector<qint32> frames;
    std::vector<uchar> firstBytes;

    std::function<void(IxChainData*)> handler()
    {
        return [this](IxChainData* d) {
            auto* img = qobject_cast<CxImageData*>(d);
            std::lock_guard<std::mutex> l(m);
            frames.push_back(img ? img->picBuf()->frameNumber : -1);
            firstBytes.push_back(img && img->picBuf()->data ? img->picBuf()->data[0] : 0);
            delete d;
        };
    }
};

qint64 accounted(const CxChain::SxStats& s)
{
    return s.delivered + s.droppedAtSource + s.swallowed + s.discardedOnStop + s.throttled;
}

} // namespace

// counted: which of the node's counters the packet went to
struct SxOwnership { int behaviour; int frame; bool output; bool inputIsOutput; QString counted; };
Q_DECLARE_METATYPE(SxOwnership)

class TstChain : public QObject
{
    Q_OBJECT
private slots:
    void init() { TestLog::lines().clear(); }
    void cleanup()
    {
        QCOMPARE(CxPicBufAPI::OutstandingPoolPictures(), 0);
        QCOMPARE(CxPicBufAPI::LivePoolCount(), 0);
    }

    void refusalStopsTheStart()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(kit::format(8, 8, 3, IDT_UINT8, 0, CFA_NONE, DSF_PACKED, true));
        auto* add = appendNew<CxTstAddNode>(chain);
        auto* mono = appendNew<CxTstMonoOnlyNode>(chain);
        QVERIFY(!chain.start());
        QVERIFY(chain.stopped());
        QVERIFY2(chain.lastError().contains("Mono only"), qPrintable(chain.lastError()));
        QVERIFY2(chain.lastError().contains("Only mono pictures are supported."), qPrintable(chain.lastError()));
        QVERIFY(TestLog::lines().isEmpty());  // nobody was set up
        QVERIFY(!mono->started);
        QVERIFY(!add->memoryPool());

        // The same chain starts once the input fits; old messages are gone.
        chain.setInputFormat(kit::format(8, 8));
        QVERIFY2(chain.start(), qPrintable(chain.lastError()));
        QVERIFY(mono->errorMessage().isEmpty());
        chain.stop();
    }

    // A node that throws breaks its contract; the chain survives it. At the
    // start the start fails and every node started so far is stopped again;
    // while frames flow the chain stops taking them and says so once; a
    // throwing setupStop is only logged. The next start is clean.
    void nodeExceptions_data()
    {
        QTest::addColumn<QString>("where");
        QTest::addColumn<bool>("live");
        for (const char* where : {"queryOutputImageInfo", "setupStart", "processData", "setupStop"})
            for (bool live : {false, true})
                QTest::addRow("%s, %s", where, live ? "live" : "synchronous") << QString::fromLatin1(where) << live;
    }
    void nodeExceptions()
    {
        QFETCH(QString, where);
        QFETCH(bool, live);
        CxChain chain;
        chain.setRunMode(live ? CxChain::RunLive : CxChain::RunSynchronous);
        chain.setInputFormat(kit::format(8, 4));
        std::atomic<int> delivered{0};
        chain.setOutputHandler([&](IxChainData* d) { delete d; ++delivered; });
        appendNew<CxTstAddNode>(chain, "a");
        auto* b = appendNew<CxTstAddNode>(chain, "b");
        b->throwIn = where;
        QSignalSpy failed(&chain, &CxChain::failed);
        const bool atStart = where == "queryOutputImageInfo" || where == "setupStart";
        QCOMPARE(chain.start(), !atStart);
        if (atStart) {
            QVERIFY2(chain.lastError().contains(where) && chain.lastError().contains("std::bad_alloc"),
                     qPrintable(chain.lastError()));
            QCOMPARE(TestLog::lines(), where == "setupStart" ? QStringList({"start a", "start b", "stop a", "stop b"})
                                                             : QStringList());
        } else {
            for (int i = 0; i < 3; ++i) {
                IxChainData* packet = kit::heapPacket(kit::format(8, 4), i, 7);
                if (live)
                    chain.post(packet);
                else
                    delete chain.push(packet);
            }
            QVERIFY(where != "processData" || failed.count() == 1 || failed.wait(5000));
            QCOMPARE(chain.hasFailed(), where == "processData");
            chain.stop();
            QCOMPARE(failed.count(), int(where == "processData"));
            if (where == "processData")
                QVERIFY2(chain.lastError().contains("\"Add\" failed in processData: std::bad_alloc"),
                         qPrintable(chain.lastError()));
        }
        QVERIFY(chain.stopped());
        b->throwIn.clear();
        QVERIFY(chain.start());
        QVERIFY(!chain.hasFailed());
        chain.stop();
    }

    void setupOrderAndFormats()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(kit::format(9, 5));
        auto* a = appendNew<CxTstAddNode>(chain, "a");
        auto* b = appendNew<CxTstAddNode>(chain, "b");
        QVERIFY(chain.start());
        QCOMPARE(TestLog::lines(), QStringList({"start a", "start b"}));
        QCOMPARE(b->inAtStart.width, 9u);
        QCOMPARE(a->state(), int(CxChainable::StateRunning));
        QCOMPARE(b->predecessors(), QList<CxChainable*>{a});
        chain.stop();
        QCOMPARE(TestLog::lines(), QStringList({"start a", "start b", "stop a", "stop b"}));
        QCOMPARE(a->state(), int(CxChainable::StateIdle));
        QVERIFY(!a->memoryPool());
    }

    void poolSizes_data()
    {
        QTest::addColumn<int>("mode");
        QTest::addColumn<int>("depth");
        QTest::addColumn<int>("expected");
        QTest::newRow("synchronous") << int(CxChain::RunSynchronous) << 2 << 2;
        QTest::newRow("live depth 2") << int(CxChain::RunLive) << 2 << 4;
        QTest::newRow("live depth 5") << int(CxChain::RunLive) << 5 << 7;
    }
    void poolSizes()
    {
        QFETCH(int, mode);
        QFETCH(int, depth);
        QFETCH(int, expected);
        CxChain chain;
        chain.setRunMode(CxChain::ExRunMode(mode));
        chain.setQueueDepth(depth);
        chain.setInputFormat(kit::format(4, 4));
        auto* add = appendNew<CxTstAddNode>(chain);
        auto* pass = appendNew<CxTstBehaviourNode>(chain);  // asks for no picture
        QVERIFY(chain.start());
        QCOMPARE(CxPicBufAPI::MemoryPoolSize(add->memoryPool()), expected);
        QVERIFY(!pass->memoryPool());
        chain.stop();
    }

    void synchronousOwnership_data()
    {
        QTest::addColumn<SxOwnership>("row");
        QTest::newRow("pass through") << SxOwnership{int(CxTstBehaviourNode::PassThrough), 0, true, true, "passedOn"};
        QTest::newRow("dropped, not freed by the node")
            << SxOwnership{int(CxTstBehaviourNode::DropOdd), 1, false, false, "withoutOutput"};
        QTest::newRow("kept") << SxOwnership{int(CxTstBehaviourNode::DropOdd), 2, true, true, "passedOn"};
        QTest::newRow("new packet, input left to the host")
            << SxOwnership{int(CxTstBehaviourNode::NewKeepInput), 0, true, false, "outputs"};
        QTest::newRow("node throws") << SxOwnership{int(CxTstBehaviourNode::Throw), 0, false, false, "withoutOutput"};
    }
    void synchronousOwnership()
    {
        QFETCH(SxOwnership, row);
        const auto& [behaviour, frame, output, inputIsOutput, counted] = row;
        CxChain chain;
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(kit::format(6, 3));
        appendNew<CxTstBehaviourNode>(chain)->behaviour = CxTstBehaviourNode::ExBehaviour(behaviour);
        QVERIFY(chain.start());
        CxImageData* in = kit::heapPacket(kit::format(6, 3), frame, 7);
        QPointer<CxImageData> guard(in);
        if (behaviour == CxTstBehaviourNode::Throw)
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("failed in processData: broken node"));
        IxChainData* out = chain.push(in);
        QCOMPARE(out != nullptr, output);
        QCOMPARE(!guard.isNull(), inputIsOutput);
        if (out) {
            auto* img = qobject_cast<CxImageData*>(out);
            QVERIFY(img);
            QCOMPARE(img->picBuf()->data[0], uchar(7));
        }
        delete out;
        chain.stop();
        const CxChain::SxNodeStats n = chain.nodeStats(0);
        const QMap<QString, qint64> got{{"outputs", n.outputs}, {"passedOn", n.passedOn}, {"withoutOutput", n.withoutOutput}};
        QCOMPARE(n.frames, 1);
        QCOMPARE(got.value(counted), 1);
        QCOMPARE(n.outputs + n.passedOn + n.withoutOutput, 1);
    }

    void stepThroughSource()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setSource(new CxSyntheticCamera(cameraConfig(3)));
        appendNew<CxTstAddNode>(chain)->addend = 0;
        QVERIFY(chain.start());
        for (int i = 0; i < 3; ++i) {
            IxChainData* out = chain.step();
            QVERIFY(out);
            QVERIFY(out->isLiveData() == false);  // the node made a new packet without the flag
            QCOMPARE(qobject_cast<CxImageData*>(out)->picBuf()->frameNumber, i);
            delete out;
        }
        QVERIFY(!chain.step());  // at its end
        chain.stop();
        QCOMPARE(chain.stats().grabbed, 3);
        QCOMPARE(chain.stats().delivered, 3);
    }

    void liveRunKeepsOrderAndLosesNothing()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunLive);
        chain.setSource(new CxTstFileLikeSource(cameraConfig(300)));
        appendNew<CxTstAddNode>(chain);
        appendNew<CxTstAddNode>(chain)->sleepUs = 200;
        appendNew<CxTstBehaviourNode>(chain);
        Collector c;
        chain.setOutputHandler(c.handler());
        QSignalSpy finished(&chain, &CxChain::finished);
        QVERIFY(chain.start());
        QVERIFY(chain.waitForFinished(60000));
        chain.stop();
        QCOMPARE(int(c.frames.size()), 300);
        for (int i = 0; i < 300; ++i)
            QCOMPARE(c.frames[size_t(i)], i);
        const CxChain::SxStats s = chain.stats();
        QCOMPARE(s.droppedAtSource, 0);
        QCOMPARE(s.delivered, 300);
        QTRY_COMPARE(finished.count(), 1);
    }

    void liveRestartsWhileFramesFlow()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunLive);
        chain.setSource(new CxSyntheticCamera(cameraConfig(0)));
        auto* add = appendNew<CxTstAddNode>(chain);
        Collector c;
        chain.setOutputHandler(c.handler());
        QVERIFY(chain.start());
        for (int i = 0; i < 60; ++i) {
            QTest::qWait(2);
            add->setAddend(i % 3, true);  // stop, store, start
            QVERIFY(!chain.stopped());
        }
        QTest::qWait(20);
        chain.stop();
        QVERIFY(chain.stopped());
        const CxChain::SxStats s = chain.stats();
        QVERIFY(s.grabbed > 0);
        QCOMPARE(accounted(s), s.grabbed);
        QCOMPARE(qint64(c.frames.size()), s.delivered);
        for (size_t i = 1; i < c.frames.size(); ++i)
            QVERIFY2(c.frames[i] > c.frames[i - 1], "frames reordered or repeated");
    }

    // Nothing to run without a source or an input format; a stopped chain
    // frees what is pushed into it, and a setting that asks for a restart is
    // only stored.
    void stoppedChain()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunSynchronous);
        auto* add = appendNew<CxTstAddNode>(chain);
        QVERIFY(!chain.start());
        QVERIFY(!chain.lastError().isEmpty());
        chain.setInputFormat(kit::format(4, 4));
        QPointer<CxImageData> guard(kit::heapPacket(kit::format(4, 4), 0, 1));
        QVERIFY(!chain.push(guard));
        QVERIFY(guard.isNull());
        add->setAddend(9, true);
        QCOMPARE(add->addend, 9);
        QVERIFY(chain.stopped());
        QVERIFY(TestLog::lines().isEmpty());
    }

    void stopFromAChainThreadIsRefused()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunLive);
        chain.setSource(new CxSyntheticCamera(cameraConfig(0)));
        chain.appendNode(new CxTstAddNode);
        std::atomic<int> calls{0};
        chain.setOutputHandler([&](IxChainData* d) {
            delete d;
            if (calls++ == 0)
                chain.stop();
        });
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("stop\\(\\) called from a chain thread"));
        QVERIFY(chain.start());
        QTRY_VERIFY(calls.load() > 3);
        QVERIFY(!chain.stopped());
        chain.stop();
    }

    void maxFpsThrottles()
    {
        CxChain chain;
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(kit::format(4, 4));
        appendNew<CxTstAddNode>(chain)->setMaxFps(1.0);
        QVERIFY(chain.start());
        IxChainData* first = chain.push(kit::heapPacket(kit::format(4, 4), 0, 0));
        IxChainData* second = chain.push(kit::heapPacket(kit::format(4, 4), 1, 0));
        QVERIFY(first);
        QVERIFY(!second);
        QCOMPARE(chain.stats().throttled, 1);
        delete first;
        chain.stop();
    }

    void storedOutputsKeepTheNewest()
    {
        CxTstAddNode node;
        for (int i = 0; i < CxChainable::MaxStoredOutputs + 3; ++i)
            node.addToOutputData(kit::heapPacket(kit::format(2, 2), i, 0));
        auto* latest = qobject_cast<CxImageData*>(node.latestData(nullptr));
        QCOMPARE(latest->picBuf()->frameNumber, CxChainable::MaxStoredOutputs + 2);
        QCOMPARE(qobject_cast<CxImageData*>(node.data(nullptr, 0))->picBuf()->frameNumber, 3);
        node.discardLatestData(nullptr);
        QCOMPARE(qobject_cast<CxImageData*>(node.latestData(nullptr))->picBuf()->frameNumber,
                 CxChainable::MaxStoredOutputs + 1);
    }
};

QTEST_GUILESS_MAIN(TstChain)
#include "tst_chain.moc"
