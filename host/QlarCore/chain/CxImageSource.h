#pragma once
#include "CxImageProvider.h"

// The first element of a chain: produces frames instead of transforming them.
// The chain calls grabFrame on its source thread (live run) or on the caller's
// thread (synchronous run). Frames come from the source's own memory pool,
// sized by buffersCountInMemoryPool() like any node's.
class QLARCORE_EXPORT CxImageSource : public CxImageProvider
{
    Q_OBJECT
public:
    explicit CxImageSource(ExChainableFlags flags = FlagProducesPictures);

    // Format of the frames the source delivers; false when it cannot deliver any.
    virtual bool sourceFormat(SxPicBufInfo& info, CxImageMetadata* meta) = 0;
    // The next frame as a new packet, or null when none can be made now (pool
    // exhausted) or the source is at its end.
    virtual IxChainData* grabFrame() = 0;
    // True when a finite source has delivered its last frame.
    virtual bool atEnd() const { return false; }
    // Live sources (cameras) drop frames when the chain is busy; other
    // sources wait for room.
    virtual bool isLiveSource() const { return true; }

    bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                              const CxImageMetadata* inMeta, CxImageMetadata* outMeta) override;
    int buffersCountInMemoryPool() const override { return 2; }
};
