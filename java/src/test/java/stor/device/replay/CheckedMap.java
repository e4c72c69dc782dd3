package stor.device.replay;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.ByteBufUtil;
import java.util.Arrays;
import java.util.List;
import stor.device.skiplist.JniSkipListNative;

/**
 * Keeps a native map and its model in step, and compares all that the native side hands out.
 *
 * <p>Owns the native map. Holds no buffer: after an insert, the map's own slice is all that keeps
 * the bytes. The thread rules are those of {@link JniSkipListNative}. Every method throws a
 * {@link Difference} when an answer is not the model's, and passes on what the native side throws;
 * the two maps are then out of step.
 */
public final class CheckedMap implements AutoCloseable {
    private static final int EXCERPT_BYTES = 16;

    private final RangeModel model;
    private final CountedBuffers buffers;
    private final Timings timings;
    private long handle;
    private long comparedRanges;
    private long comparedBytes;

    /**
     * Makes an empty map.
     *
     * @param height the number of levels of the native map
     * @param sectorSize the logical bytes of a sector
     * @param buffers makes the buffers
     * @param timings takes the times of the native calls
     */
    public CheckedMap(int height, int sectorSize, CountedBuffers buffers, Timings timings) {
        this.model = new RangeModel(sectorSize);
        this.buffers = buffers;
        this.timings = timings;
        this.handle = JniSkipListNative.createSkipList(height, sectorSize);
    }

    /**
     * Reads the model, which only this class changes.
     *
     * @return the model
     */
    public RangeModel model() {
        return model;
    }

    /**
     * Reads the native handle, for what is not checked here.
     *
     * @return the native handle, still owned by this object
     */
    public long handle() {
        return handle;
    }

    /**
     * Reads how many ranges have been compared.
     *
     * @return the number of ranges
     */
    public long comparedRanges() {
        return comparedRanges;
    }

    /**
     * Reads how many buffered bytes have been compared.
     *
     * @return the number of bytes
     */
    public long comparedBytes() {
        return comparedBytes;
    }

    /**
     * Stores a range of file type.
     *
     * @param start the first byte
     * @param length the length in bytes
     * @param at where the first byte lies; its type is not used
     */
    public void insert(long start, int length, Location at) {
        JniSkipListNative.insert(
                handle, start, length, at.offset(), at.major(), at.minor(), at.number());
        model.insert(new Range(start, length, at.withType(false), Range.NO_BUFFER));
    }

    /**
     * Stores a range of memory type.
     *
     * @param start the first byte
     * @param length the length in bytes
     * @param at where the first byte will lie; its type is not used
     * @param writeId what bytes the buffer gets, or {@link Range#NO_BUFFER} for none
     */
    public void insertWithBuff(long start, int length, Location at, long writeId) {
        ByteBuf buffer = null;
        if (writeId != Range.NO_BUFFER) {
            buffer = buffers.allocator().buffer(length);
            buffer.writeBytes(Pattern.bytes(start, length, writeId));
        }
        try {
            long before = System.nanoTime();
            JniSkipListNative.insertWithBuff(handle, start, length, at.offset(), at.major(),
                    at.minor(), at.number(), buffer);
            timings.inserts().recordValue(System.nanoTime() - before);
        } finally {
            if (buffer != null) {
                buffer.release();
            }
        }
        model.insert(new Range(start, length, at.withType(true), writeId));
    }

    /**
     * Redirects the parts of a range that are still where they are expected.
     *
     * @param start the first byte
     * @param length the length in bytes
     * @param expected where the first byte is expected
     * @param replacement where it is from now on
     * @return whether any part was redirected
     */
    public boolean compareAndSet(long start, int length, Location expected, Location replacement) {
        boolean redirected = JniSkipListNative.compareAndSet(handle, start, length,
                expected.offset(), expected.major(), expected.minor(), expected.number(),
                replacement.offset(), replacement.major(), replacement.minor(),
                replacement.number());
        Range request = new Range(start, length, expected.withType(false), Range.NO_BUFFER);
        Difference.check("compareAndSet of " + request + " to " + replacement, redirected,
                model.compareAndSet(request, replacement.withType(false)));
        return redirected;
    }

    /**
     * Gives back the buffers of the ranges that lie inside a range and are where they are expected.
     *
     * @param start the first byte
     * @param length the length in bytes
     * @param expected where the first byte is expected
     * @return the summed lengths of the ranges that held a buffer
     */
    public long compareAndRelease(long start, int length, Location expected) {
        long released = JniSkipListNative.compareAndRelease(handle, start, length,
                expected.offset(), expected.major(), expected.minor(), expected.number());
        Range request = new Range(start, length, expected.withType(false), Range.NO_BUFFER);
        Difference.check("compareAndRelease of " + request, released,
                model.compareAndRelease(request));
        return released;
    }

    /**
     * Gives back all buffers.
     *
     * @return the summed lengths of the ranges that held one
     */
    public long release() {
        long released = JniSkipListNative.release(handle);
        Difference.check("release", released, model.release());
        return released;
    }

    /**
     * Inserts all ranges into another map.
     *
     * @param destination the other map
     */
    public void copyTo(CheckedMap destination) {
        JniSkipListNative.copySkipList(handle, destination.handle);
        model.copyTo(destination.model);
    }

    /**
     * Compares what a query lists.
     *
     * @param offset the start of the query
     * @param length its length in bytes
     */
    public void check(long offset, int length) {
        long before = System.nanoTime();
        long[] run = JniSkipListNative.getNodes(handle, offset, length);
        timings.queries().recordValue(System.nanoTime() - before);
        compareRun(run, model.find(offset, length));
    }

    /** Compares all ranges and the four counters. */
    public void checkAll() {
        compareRun(JniSkipListNative.getAllNodes(handle), model.ranges());
        Difference.check("size", JniSkipListNative.getSkipListSize(handle), model.size());
        Difference.check(
                "valid bytes", JniSkipListNative.getSkipListValidLen(handle), model.validLen());
        Difference.check(
                "inserted bytes", JniSkipListNative.getSkipLIstRawLen(handle), model.rawLen());
        Difference.check(
                "inserts", JniSkipListNative.getSkipListRawCount(handle), model.rawCount());
    }

    /**
     * Reads a range of a native map.
     *
     * @param node the native node handle
     * @param writeId what the result is to say about the buffer
     * @return all that the native side says about the range except its buffer
     */
    public static Range readNode(long node, long writeId) {
        Location location = new Location(
                JniSkipListNative.getNodeFileType(node),
                JniSkipListNative.getNodeFileNumber(node),
                JniSkipListNative.getNodeFileOffset(node),
                JniSkipListNative.getNodeFileMajorVer(node),
                JniSkipListNative.getNodeFileMinorVer(node));
        return new Range(JniSkipListNative.getNodeIndexOffset(node),
                JniSkipListNative.getNodeIndexLen(node), location, writeId);
    }

    /** Destroys the native map; does nothing the second time. */
    @Override
    public void close() {
        long destroyed = handle;
        handle = 0;
        JniSkipListNative.destorySkipList(destroyed);
    }

    private void compareRun(long[] run, List<Range> expected) {
        long node = run[0];
        for (Range range : expected) {
            if (node == run[1]) {
                throw new Difference("end of a run", "no further range", range);
            }
            compareNode(node, range);
            node = JniSkipListNative.nextNode(node);
        }
        if (node != run[1]) {
            throw new Difference("end of a run", readNode(node, 0), "no further range");
        }
    }

    private void compareNode(long node, Range expected) {
        ByteBuf buffer = JniSkipListNative.getNodeFileBuff(node);
        // The node cannot say which write it holds: that is settled by the buffer's bytes below.
        Range found = readNode(node, buffer == null ? Range.NO_BUFFER : expected.writeId());
        if (!found.equals(expected) || expected.isBuffered() != (buffer != null)) {
            throw new Difference("range (buffer: " + buffer + ")", found, expected);
        }
        if (buffer != null) {
            compareBytes(buffer, expected);
        }
        comparedRanges++;
    }

    private void compareBytes(ByteBuf buffer, Range expected) {
        // One bulk read: with leak detection on, every access to a buffer is recorded.
        byte[] found = new byte[buffer.readableBytes()];
        buffer.getBytes(buffer.readerIndex(), found);
        byte[] bytes = Pattern.bytes(expected.start(), expected.length(), expected.writeId());
        int at = Arrays.mismatch(found, bytes);
        if (at >= 0) {
            throw new Difference("bytes of " + expected + " from byte " + at,
                    excerpt(found, at), excerpt(bytes, at));
        }
        comparedBytes += found.length;
    }

    private static String excerpt(byte[] bytes, int from) {
        int to = Math.min(bytes.length, from + EXCERPT_BYTES);
        return ByteBufUtil.hexDump(bytes, from, to - from) + " (" + bytes.length + " bytes)";
    }
}
