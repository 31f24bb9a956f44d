#pragma once
// Measures a node's processData per frame the way the host runs it: a
// synchronous chain negotiates formats and sets up the node's pool, each frame
// is a fresh CxImageData packet borrowing one prepared input picture, and the
// output packet is deleted so its picture goes back to the pool. What is timed
// is therefore the node's kernel plus the real packet and pool path, not a
// copy of the input.
#include "BenchCommon.h"

#include <CxChain.h>
#include <CxChainable.h>
#include <CxImageData.h>
#include <CxImageMetadata.h>

#include <functional>
#include <memory>
#include <string>

namespace bench {

class NodeRun
{
public:
    // Takes ownership of node. The input is a heap picture of format f filled
    // with a synthetic camera frame (8- and 16-bit) or left zero.
    NodeRun(CxChainable* node, const SxPicBufInfo& f, const CxImageMetadata& meta = CxImageMetadata(),
            CxSyntheticCamera::ExLayout layout = CxSyntheticCamera::LayoutMono)
        : m_own(f), m_input(m_own.p), m_meta(meta)
    {
        if (f.dataType == IDT_UINT8 || f.dataType == IDT_UINT16)
            fillCamera(m_input, layout);
        start(node);
    }
    // Borrows input, which must outlive the run: many nodes can share one
    // prepared frame.
    NodeRun(CxChainable* node, SxPicBuf& input, const CxImageMetadata& meta)
        : m_input(input), m_meta(meta)
    {
        start(node);
    }
    ~NodeRun() { m_chain.stop(); }

    bool ok() const { return m_ok; }
    QString error() const { return m_chain.lastError(); }
    SxPicBuf& input() { return m_input; }
    CxChainable* node() const { return m_node; }

    // One frame through the node; true when the node passed a packet on.
    bool frame()
    {
        auto* p = new CxImageData;
        SxPicBuf borrowed;
        CxPicBufAPI::WrapPicBuf(borrowed, m_input, m_input.data, m_input.dataSize());
        borrowed.frameNumber = m_frame++;
        p->setPicBuf(borrowed);
        p->setMetadata(&m_meta);
        IxChainData* out = m_chain.push(p);
        const bool passed = out != nullptr;
        delete out;
        return passed;
    }

    // Runs the benchmark loop and reports the input bytes per frame.
    void run(benchmark::State& state)
    {
        if (!m_ok) {
            state.SkipWithError(("chain did not start: " + m_chain.lastError().toStdString()).c_str());
            return;
        }
        // bench/run times short slices, each on a fresh chain: the first
        // frame's one-off work (tables, pools, plans) is not a frame's cost.
        frame();
        for (auto _ : state)
            frame();
        state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(m_input.dataSize()));
    }

private:
    void start(CxChainable* node)
    {
        m_node = node;
        m_chain.setRunMode(CxChain::RunSynchronous);
        m_chain.setInputFormat(m_input, m_meta);
        m_chain.appendNode(node);
        m_ok = m_chain.start();
    }

    Pic m_own;
    SxPicBuf& m_input;
    CxImageMetadata m_meta;
    CxChainable* m_node = nullptr;
    CxChain m_chain;
    bool m_ok = false;
    qint32 m_frame = 0;
};

} // namespace bench
