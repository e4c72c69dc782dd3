package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import java.util.function.Supplier;

/**
 * Takes the ranges of a map one by one, in the order in which the map has them, and throws if
 * something does not hold. Runs the code of buffers, and so is a visitor for the map's guard.
 */
final class InvariantCheck {
    private int count;
    private long bytes;
    private long previousEnd = Long.MIN_VALUE;

    /** Walks a map whose guard the caller is inside. */
    static void run(long handle) {
        InvariantCheck check = new InvariantCheck();
        for (long node = MapSearch.first(handle); !NodeReader.isEndMark(node);
                node = NodeReader.next(node)) {
            check.range(NodeReader.range(node), NodeReader.buffer(node));
        }
        check.end(JniSkipListNative.getSkipListSize(handle),
                JniSkipListNative.getSkipListValidLen(handle));
    }

    /** Takes the next range, and its buffer or null. */
    void range(MappedRange range, ByteBuf buffer) {
        require(range.len() > 0, range::toString, "len > 0");
        require(range.offset() >= previousEnd, range::toString,
                "offset >= the end of the range before, " + previousEnd);
        if (buffer != null) {
            require(range.memoryType(), () -> range + " with a buffer", "memory type");
            require(buffer.refCnt() > 0 && buffer.readableBytes() == range.len(),
                    () -> range + " with " + buffer,
                    "a buffer of that length that is not released");
        }
        previousEnd = range.end();
        count++;
        bytes += range.len();
    }

    /** Compares what was taken with what the map counts. */
    void end(int size, long covered) {
        require(count == size, () -> "size: " + size, "the number of ranges, " + count);
        require(covered <= bytes, () -> "coveredBytes: " + covered,
                "<= their summed lengths, " + bytes);
    }

    private static void require(boolean holds, Supplier<String> found, String expected) {
        if (!holds) {
            throw new AssertionError(
                    "checkInvariants: " + found.get() + " (expected: " + expected + ")");
        }
    }
}
