#pragma once
// The median filter before the rewrite of its larger kernels: same contract
// as CxPicBufAPI::MedianAllocBuffer, Median and MedianFreeBuffer.
#include <SxPicBuf.h>

namespace MedianBefore {
bool allocBuffer(const SxPicBufInfo& format, int radius, void** buffer);
bool median(const SxPicBuf& in, SxPicBuf& out, int radius, void* buffer);
void freeBuffer(void* buffer);
} // namespace MedianBefore
