#pragma once
#include "CxImageData.h"

// A spectrum packet: the real and imaginary parts of a 2D transform (two
// one-channel float pictures of equal size) and, optionally, the picture that
// was transformed.
//
// To every consumer that only knows CxImageData the packet is the real part:
// picBuf() answers it, so the picture matches the float format the producing
// node announced for its output. The imaginary part and the source are
// reached through this class.
//
// Ownership follows setPicBuf: the packet takes over all the pictures it is
// given and gives pool pictures back to their pool and heap pictures to the
// heap when it is deleted or given new ones; borrowed (wrapped) memory is only
// described. The source is taken over as well, not copied, so keeping it costs
// nothing per frame; hand it over from a packet that lets go of it
// (CxImageData::takePicBuf), never a picture that another packet still holds.
// A picture handed in twice (the same memory as another part) is kept only
// once and described by the other.
class QLARCORE_EXPORT CxFFTImageData : public CxImageData
{
    Q_OBJECT
public:
    CxFFTImageData();
    ~CxFFTImageData() override;

    // Takes over re, im and, when given, *source; pictures held before are
    // released first unless they are the same memory.
    void setPicBufReIm(const SxPicBuf& re, const SxPicBuf& im, const SxPicBuf* source);

    SxPicBuf* picBufRe() { return picBuf(); }
    const SxPicBuf* picBufRe() const { return picBuf(); }
    SxPicBuf* picBufIm() { return &m_im; }
    const SxPicBuf* picBufIm() const { return &m_im; }
    // Null when the packet carries no source picture.
    SxPicBuf* sourcePicBuf() { return m_hasSource ? &m_source : nullptr; }
    const SxPicBuf* sourcePicBuf() const { return m_hasSource ? &m_source : nullptr; }

private:
    SxPicBuf m_im;
    SxPicBuf m_source;
    bool m_hasSource = false;
};
