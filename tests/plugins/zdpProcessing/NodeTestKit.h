#pragma once
// A synchronous chain around one node that counts the restarts a setting
// causes; pictures come from the picture kit.
#include <PictureKit.h>

#include <CxChain.h>
#include <CxChainable.h>

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtXml/QDomDocument>

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

using Attributes = QMap<QString, QString>;

// Settings elements as a chain document holds them, and a node's settings as
// it saves them.
struct SxDocument
{
    QDomDocument doc;
    QDomElement element(const Attributes& attrs = {})
    {
        QDomElement e = doc.createElement(QStringLiteral("Chainable"));
        for (auto it = attrs.cbegin(); it != attrs.cend(); ++it)
            e.setAttribute(it.key(), it.value());
        return e;
    }
    Attributes saved(CxChainable& node)
    {
        QDomElement e = element();
        if (!node.saveSettings(doc, e))
            return {{QStringLiteral("saveSettings"), QStringLiteral("false")}};
        Attributes map;
        const QDomNamedNodeMap all = e.attributes();
        for (int i = 0; i < all.count(); ++i)
            map.insert(all.item(i).toAttr().name(), all.item(i).toAttr().value());
        return map;
    }
};

} // namespace nodetest
