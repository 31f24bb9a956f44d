#pragma once
// A synchronous chain around one node that counts the restarts a setting
// causes; pictures come from the picture kit.
#include <PictureKit.h>

#include <CxChain.h>
#include <CxChainable.h>

#include <QtCore/QObject>

namespace nodetest {

using namespace kit;

// The chain owns the node.
template <class Node>
struct SxNodeRun
{
    CxChain chain;
    Node* node;
    int starts = 0;
    int stops = 0;

    explicit SxNodeRun(const SxPicBufInfo& f, const CxImageMetadata& meta = CxImageMetadata(), Node* n = new Node)
        : node(n)
    {
        chain.setRunMode(CxChain::RunSynchronous);
        chain.setInputFormat(f, meta);
        chain.appendNode(node);
        QObject::connect(&chain, &CxChain::started, [this] { ++starts; });
        QObject::connect(&chain, &CxChain::stoppedSignal, [this] { ++stops; });
    }
    ~SxNodeRun() { QObject::disconnect(&chain, nullptr, nullptr, nullptr); }

    // Starts the chain and forgets the counts so far.
    bool startCounted()
    {
        const bool ok = chain.start();
        starts = stops = 0;
        return ok;
    }
    // The output packet for one frame (the caller owns it), or null when the
    // node passed nothing on.
    IxChainData* push(const CxPicture& input)
    {
        if (chain.stopped() && !chain.start())
            return nullptr;
        return chain.push(input.packet());
    }
    CxImageData* process(const CxPicture& input) { return qobject_cast<CxImageData*>(push(input)); }
};

} // namespace nodetest
