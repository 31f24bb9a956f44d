#include "IxChainData.h"

IxChainData::~IxChainData() = default;
