#include "CxFFTImageData.h"
#include "CxPicBufAPI.h"

namespace {

bool ownsMemory(const SxPicBuf& p)
{
    return p.memBlock && (p.memOrigin == SxPicBuf::MemHeap || p.memOrigin == SxPicBuf::MemPool);
}

bool sameMemory(const SxPicBuf& a, const SxPicBuf& b)
{
    return ownsMemory(a) && ownsMemory(b) && a.memBlock == b.memBlock;
}

// The picture stays described but its memory belongs to another part.
void describeOnly(SxPicBuf& p)
{
    p.memBlock = nullptr;
    p.memOrigin = SxPicBuf::MemBorrowed;
}

} // namespace

CxFFTImageData::CxFFTImageData() = default;

CxFFTImageData::~CxFFTImageData()
{
    CxPicBufAPI::FreePicBuf(m_im, false);
    CxPicBufAPI::FreePicBuf(m_source, false);
}

void CxFFTImageData::setPicBufReIm(const SxPicBuf& re, const SxPicBuf& im, const SxPicBuf* source)
{
    // Copies first: the arguments may be this packet's own pictures.
    SxPicBuf newRe = re;
    SxPicBuf newIm = im;
    SxPicBuf newSource;
    const bool hasSource = source != nullptr;
    if (hasSource)
        newSource = *source;
    if (sameMemory(newIm, newRe))
        describeOnly(newIm);
    if (hasSource && (sameMemory(newSource, newRe) || sameMemory(newSource, newIm)))
        describeOnly(newSource);

    SxPicBuf old[3] = { takePicBuf(), m_im, m_source };
    for (SxPicBuf& o : old) {
        if (sameMemory(o, newRe) || sameMemory(o, newIm) || (hasSource && sameMemory(o, newSource)))
            continue;  // handed in again: ownership carries over
        CxPicBufAPI::FreePicBuf(o, false);
    }

    setPicBuf(newRe);
    m_im = newIm;
    m_source = hasSource ? newSource : SxPicBuf();
    m_hasSource = hasSource;
}

SxPicBuf CxFFTImageData::floatView(const SxPicBuf& part)
{
    SxPicBuf view = part;
    view.dataType = IDT_FLOAT;
    view.bitsPerSample = 32;
    view.memBlock = nullptr;
    view.memOrigin = part.data ? SxPicBuf::MemBorrowed : SxPicBuf::MemNone;
    return view;
}
