#pragma once
#include "CxChainable.h"
#include "CxImageMetadata.h"
#include "SxPicBufInfo.h"

// A chainable that produces pictures. The chain negotiates its format with
// queryOutputImageInfo before a run and gives it a memory pool of output
// pictures whose handle nodes pass to CxPicBufAPI::AllocPicBufFromPool.
class QLARCORE_EXPORT CxImageProvider : public CxChainable
{
    Q_OBJECT
public:
    explicit CxImageProvider(ExChainableFlags flags = FlagNone);
    ~CxImageProvider() override;

    bool init(QString* errorMessage) override;
    bool initialized() override;

    // ---- further virtual operations, in contract order ----
    // Output format and description for an input; false refuses the input.
    virtual bool queryOutputImageInfo(const SxPicBufInfo& in, SxPicBufInfo& out,
                                      const CxImageMetadata* inMeta, CxImageMetadata* outMeta); // 39
    // The formats negotiated for the current run; false before the first start.
    virtual bool currentOutputImageInfo(SxPicBufInfo& info, CxImageMetadata* meta);              // 40
    virtual bool currentInputImageInfo(SxPicBufInfo& info, CxImageMetadata* meta);               // 41
    // Pool pictures the node needs for a format: buffersCountInMemoryPool()
    // plus recommendedAdditionalBuffersInMemoryPool().
    virtual int queryImagesCountInMemoryPool(const SxPicBufInfo& info, void* reserved);          // 42

    // The memory pool handle nodes hand to AllocPicBufFromPool (null while no
    // chain runs the node).
    void* memoryPool() const { return m_memoryPool; }

    // Host side.
    void setMemoryPool(void* pool) { m_memoryPool = pool; }
    void setCurrentImageInfo(const SxPicBufInfo& in, const CxImageMetadata& inMeta,
                             const SxPicBufInfo& out, const CxImageMetadata& outMeta);

private:
    void* m_memoryPool = nullptr;
    bool m_hasFormats = false;
    SxPicBufInfo m_inInfo, m_outInfo;
    CxImageMetadata m_inMeta, m_outMeta;
};
