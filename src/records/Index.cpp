#include "records/Index.h"

Index::Index(long long startOffset, int length) : ByteRange{startOffset, length} {
    MemoryStat::statsMem(charge);
}

Index::Index(const Index& src) : Index(src.offset, src.len) {}

Index::Index(Index&& src) : Index(src.offset, src.len) {}

Index::~Index() {
    MemoryStat::statsMem(-charge);
}

std::unique_ptr<Index> Index::create(long long offset, int len) {
    return std::make_unique<Index>(offset, len);
}

std::unique_ptr<std::list<std::unique_ptr<Index>>> Index::createList() {
    return std::make_unique<std::list<std::unique_ptr<Index>>>();
}
