#pragma once
// Small nodes that exercise the runtime from the outside, the way plug-in
// nodes use it.
#include <CxChain.h>
#include <CxImageData.h>
#include <CxImageProvider.h>
#include <CxPicBufAPI.h>
#include <CxSyntheticCamera.h>

#include <PictureKit.h>

#include <QtCore/QStringList>
#include <QtXml/QDomElement>

#include <new>
#include <thread>

struct TestLog
{
    static QStringList& lines()
    {
        static QStringList l;
        return l;
    }
};

// Adds a constant to every 8-bit sample into a pool picture; the common
// node pattern.
class CxTstAddNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Add")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstAddNode")
public:
    Q_INVOKABLE CxTstAddNode() : CxImageProvider(ExChainableFlags(9)) {}
    int addend = 1;
    int sleepUs = 0;
    SxPicBufInfo inAtStart;
    QString throwIn;  // a contract call that throws std::bad_alloc, as a faulty node would

    void throwFrom(const char* call) const
    {
        if (throwIn == QLatin1String(call))
            throw std::bad_alloc();
    }
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out, const CxImageMetadata* inMeta,
                              CxImageMetadata* outMeta) override
    {
        throwFrom("queryOutputImageInfo");
        return CxImageProvider::queryOutputImageInfo(in, out, inMeta, outMeta);
    }

    void setAddend(int v, bool restart) { changeSetting(restart, [&] { addend = v; }); }
    QString title() const override { return QStringLiteral("Add"); }
    void setupStart() override
    {
        TestLog::lines() << QStringLiteral("start %1").arg(objectName());
        currentInputImageInfo(inAtStart, nullptr);
        throwFrom("setupStart");
    }
    void setupStop() override
    {
        TestLog::lines() << QStringLiteral("stop %1").arg(objectName());
        throwFrom("setupStop");
    }
    bool saveSettings(QDomDocument& doc, QDomElement& e) const override
    {
        const bool ok = CxImageProvider::saveSettings(doc, e);
        e.setAttribute(QStringLiteral("addend"), addend);
        return ok;
    }
    bool loadSettings(const QDomElement& e) override
    {
        const bool ok = CxImageProvider::loadSettings(e);
        if (e.hasAttribute(QStringLiteral("addend")))
            addend = e.attribute(QStringLiteral("addend")).toInt();
        return ok;
    }
    IxChainData* processData(IxChainData* data) override
    {
        if (!data || state() == StateStopping)
            return nullptr;
        throwFrom("processData");
        auto* in = qobject_cast<CxImageData*>(data);
        if (!in || !in->picBuf()->data)
            return nullptr;
        SxPicBufInfo outInfo;
        CxImageMetadata outMeta;
        if (!queryOutputImageInfo(*in->picBuf(), outInfo, in->metadata(), &outMeta))
            return nullptr;
        SxPicBuf out;
        if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, out, outInfo, false))
            return nullptr;
        const SxPicBuf& src = *in->picBuf();
        for (quint32 y = 0; y < src.height; ++y)
            for (quint64 x = 0; x < src.packedLineBytes(); ++x)
                out.rowPtr(y)[x] = uchar(src.rowPtr(y)[x] + addend);
        if (sleepUs)
            std::this_thread::sleep_for(std::chrono::microseconds(sleepUs));
        out.copyPicAdditionalData(src);
        auto* packet = new CxImageData;
        packet->setPicBuf(out);
        packet->setMetadata(&outMeta);
        delete data;
        return packet;
    }
};

// Refuses anything but one-channel input, with a message.
class CxTstMonoOnlyNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Mono Only")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstMonoOnlyNode")
public:
    Q_INVOKABLE CxTstMonoOnlyNode() = default;
    bool started = false;
    QString title() const override { return QStringLiteral("Mono only"); }
    void setupStart() override { started = true; }
    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out, const CxImageMetadata* inMeta,
                              CxImageMetadata* outMeta) override
    {
        if (in.channels != 1) {
            if (errorMessage().isEmpty())
                setErrorMessage(QStringLiteral("Only mono pictures are supported."));
            return false;
        }
        return CxImageProvider::queryOutputImageInfo(in, out, inMeta, outMeta);
    }
};

// What a node may legally do with its input besides the common pattern.
class CxTstBehaviourNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Behaviour")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstBehaviourNode")
public:
    enum ExBehaviour { PassThrough, DropOdd, NewKeepInput, Throw };
    Q_INVOKABLE CxTstBehaviourNode() = default;
    ExBehaviour behaviour = PassThrough;
    int buffersCountInMemoryPool() const override { return behaviour == NewKeepInput ? 1 : 0; }
    bool loadSettings(const QDomElement& e) override
    {
        // A node may reject settings it cannot live with.
        return CxImageProvider::loadSettings(e) && !e.hasAttribute(QStringLiteral("reject"));
    }
    IxChainData* processData(IxChainData* data) override
    {
        auto* in = qobject_cast<CxImageData*>(data);
        if (!in)
            return nullptr;
        switch (behaviour) {
        case PassThrough:
            return data;
        case DropOdd:
            return (in->picBuf()->frameNumber & 1) ? nullptr : data;
        case NewKeepInput: {
            SxPicBuf out;
            if (!CxPicBufAPI::AllocPicBufFromPool(memoryPool(), this, out, *in->picBuf(), false))
                return nullptr;
            CxPicBufAPI::CopyPicBuf(out, *in->picBuf(), false);
            auto* packet = new CxImageData;
            packet->setPicBuf(out);
            return packet;  // the input is left to the host
        }
        case Throw:
            throw std::runtime_error("broken node");
        }
        return nullptr;
    }
};

class CxTstNoConstructorNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test No Constructor")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstNoConstructorNode")
public:
    CxTstNoConstructorNode() = default;
};

class CxTstClashingNode : public CxImageProvider
{
    Q_OBJECT
    Q_CLASSINFO("CustomName", "Test Clash")
    Q_CLASSINFO("UniqueID", "test.Qlar.CxTstAddNode")
public:
    Q_INVOKABLE CxTstClashingNode() = default;
};

// Appends a node the chain then owns; the name tells nodes apart in TestLog.
template <class N>
N* appendNew(CxChain& chain, const char* name = nullptr)
{
    auto* n = new N;
    if (name)
        n->setObjectName(QLatin1String(name));
    chain.appendNode(n);
    return n;
}

// A finite source that waits for room instead of dropping frames.
class CxTstFileLikeSource : public CxSyntheticCamera
{
    Q_OBJECT
public:
    using CxSyntheticCamera::CxSyntheticCamera;
    bool isLiveSource() const override { return false; }
};
