// The native methods under their Java names.
#pragma once

#include "stor_device_skiplist_JniSkipListNative.h"

namespace native {

inline auto* const init = Java_stor_device_skiplist_JniSkipListNative_init;
inline auto* const createSkipList = Java_stor_device_skiplist_JniSkipListNative_createSkipList;
inline auto* const destorySkipList = Java_stor_device_skiplist_JniSkipListNative_destorySkipList;
inline auto* const insert = Java_stor_device_skiplist_JniSkipListNative_insert;
inline auto* const insertWithBuff = Java_stor_device_skiplist_JniSkipListNative_insertWithBuff;
inline auto* const compareAndSet = Java_stor_device_skiplist_JniSkipListNative_compareAndSet;
inline auto* const compareAndRelease =
    Java_stor_device_skiplist_JniSkipListNative_compareAndRelease;
inline auto* const release = Java_stor_device_skiplist_JniSkipListNative_release;
inline auto* const copySkipList = Java_stor_device_skiplist_JniSkipListNative_copySkipList;
inline auto* const tryTest = Java_stor_device_skiplist_JniSkipListNative_tryTest;
inline auto* const nextNode = Java_stor_device_skiplist_JniSkipListNative_nextNode;
inline auto* const getNodeIndexOffset =
    Java_stor_device_skiplist_JniSkipListNative_getNodeIndexOffset;
inline auto* const getNodeIndexLen = Java_stor_device_skiplist_JniSkipListNative_getNodeIndexLen;
inline auto* const getNodeFileType = Java_stor_device_skiplist_JniSkipListNative_getNodeFileType;
inline auto* const getNodeFileOffset =
    Java_stor_device_skiplist_JniSkipListNative_getNodeFileOffset;
inline auto* const getMajorVer = Java_stor_device_skiplist_JniSkipListNative_getNodeFileMajorVer;
inline auto* const getMinorVer = Java_stor_device_skiplist_JniSkipListNative_getNodeFileMinorVer;
inline auto* const getNodeFileNumber =
    Java_stor_device_skiplist_JniSkipListNative_getNodeFileNumber;
inline auto* const getNodeFileBuff = Java_stor_device_skiplist_JniSkipListNative_getNodeFileBuff;
inline auto* const getValidLen = Java_stor_device_skiplist_JniSkipListNative_getSkipListValidLen;
inline auto* const getRawLen = Java_stor_device_skiplist_JniSkipListNative_getSkipLIstRawLen;
inline auto* const getRawCount = Java_stor_device_skiplist_JniSkipListNative_getSkipListRawCount;
inline auto* const getSize = Java_stor_device_skiplist_JniSkipListNative_getSkipListSize;
inline auto* const getStats = Java_stor_device_skiplist_JniSkipListNative_getStats;
inline auto* const getNodes = Java_stor_device_skiplist_JniSkipListNative_getNodes;
inline auto* const getAllNodes = Java_stor_device_skiplist_JniSkipListNative_getAllNodes;

}  // namespace native
