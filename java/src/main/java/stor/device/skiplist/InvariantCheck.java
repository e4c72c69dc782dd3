package stor.device.skiplist;

import io.netty.buffer.ByteBuf;

/** Walks a map, whose lock the caller holds, and throws if something does not hold. */
final class InvariantCheck {
    private int count;
    private long bytes;
    private long previousEnd = Long.MIN_VALUE;

    void run(long handle) {
        long[] run = JniSkipListNative.getAllNodes(handle);
        for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
            check(MappedRange.read(node), JniSkipListNative.getNodeFileBuff(node));
        }
        int size = JniSkipListNative.getSkipListSize(handle);
        require(count == size, "size: " + size, "the number of ranges, " + count);
        long covered = JniSkipListNative.getSkipListValidLen(handle);
        require(covered <= bytes, "coveredBytes: " + covered, "<= their summed lengths, " + bytes);
    }

    private void check(MappedRange range, ByteBuf buffer) {
        require(range.len() > 0, range.toString(), "len > 0");
        require(range.offset() >= previousEnd, range.toString(),
                "offset >= the end of the range before, " + previousEnd);
        if (buffer != null) {
            require(range.memoryType(), range + " with a buffer", "memory type");
            require(buffer.refCnt() > 0 && buffer.readableBytes() == range.len(),
                    range + " with " + buffer, "a buffer of that length that is not released");
        }
        previousEnd = range.end();
        count++;
        bytes += range.len();
    }

    private static void require(boolean holds, String found, String expected) {
        if (!holds) {
            throw new AssertionError(
                    "checkInvariants: " + found + " (expected: " + expected + ")");
        }
    }
}
