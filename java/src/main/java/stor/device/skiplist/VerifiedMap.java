package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import java.util.List;

/** What {@link Verification} does to a map, through the layer or past it. */
interface VerifiedMap extends AutoCloseable {
    /** Takes the ranges of a walk, each with the buffer that it holds or null. */
    interface Reader {
        void read(MappedRange range, ByteBuf buffer);
    }

    /** Stores a range; one of memory type may come without a buffer. */
    void insert(MappedRange range, ByteBuf buffer);

    boolean compareAndSet(MappedRange expected, FileLocation replacement);

    long compareAndRelease(MappedRange expected);

    long release();

    /** Copies into a map of the same kind. */
    void copyTo(VerifiedMap destination);

    void forEach(Reader reader);

    /** Reads what a query lists. */
    void forEach(long offset, int len, Reader reader);

    /** Gives size, covered bytes, inserted bytes and inserts. */
    List<Long> counters();

    @Override
    void close();

    /** The safe layer. */
    record Layer(OffHeapRangeMap map) implements VerifiedMap {
        Layer(int height, int sectorSize) {
            this(OffHeapRangeMap.createUnaligned(height, sectorSize));
        }

        @Override
        public void insert(MappedRange range, ByteBuf buffer) {
            if (buffer == null) {
                map.insert(range.offset(), range.len(), range.location());
            } else {
                map.insert(range.offset(), range.len(), range.location(), buffer);
            }
        }

        @Override
        public boolean compareAndSet(MappedRange expected, FileLocation replacement) {
            return map.compareAndSet(
                    expected.offset(), expected.len(), expected.location(), replacement);
        }

        @Override
        public long compareAndRelease(MappedRange expected) {
            return map.compareAndRelease(expected.offset(), expected.len(), expected.location());
        }

        @Override
        public long release() {
            return map.release();
        }

        @Override
        public void copyTo(VerifiedMap destination) {
            map.copyTo(((Layer) destination).map);
        }

        @Override
        public void forEach(Reader reader) {
            map.checkInvariants();
            map.forEach((offset, len, number, fileOffset, major, minor, visited) -> reader.read(
                    new MappedRange(offset, len, visited.isMemoryType(),
                            new FileLocation(number, fileOffset, major, minor)),
                    visited.buffer()));
        }

        @Override
        public void forEach(long offset, int len, Reader reader) {
            RangeBatch batch = new RangeBatch(2);
            long end = offset + len;
            boolean more = true;
            for (long from = offset; more; from = batch.size() == 0 ? end : batch.end()) {
                more = map.read(from, end - from, batch);
                for (int i = 0; i < batch.size(); i++) {
                    reader.read(batch.range(i), null);
                }
            }
        }

        @Override
        public List<Long> counters() {
            return List.of((long) map.size(), map.coveredBytes(), map.insertedBytes(),
                    (long) map.insertCount());
        }

        @Override
        public void close() {
            map.close();
        }
    }

    /** The native methods. */
    record Native(long handle) implements VerifiedMap {
        Native(int height, int sectorSize) {
            this(JniSkipListNative.createSkipList(height, sectorSize));
        }

        @Override
        public void insert(MappedRange range, ByteBuf buffer) {
            FileLocation at = range.location();
            if (range.memoryType()) {
                JniSkipListNative.insertWithBuff(handle, range.offset(), range.len(), at.offset(),
                        at.majorVer(), at.minorVer(), (byte) at.number(), buffer);
            } else {
                JniSkipListNative.insert(handle, range.offset(), range.len(), at.offset(),
                        at.majorVer(), at.minorVer(), (byte) at.number());
            }
        }

        @Override
        public boolean compareAndSet(MappedRange expected, FileLocation replacement) {
            FileLocation at = expected.location();
            return JniSkipListNative.compareAndSet(handle, expected.offset(), expected.len(),
                    at.offset(), at.majorVer(), at.minorVer(), (byte) at.number(),
                    replacement.offset(), replacement.majorVer(), replacement.minorVer(),
                    (byte) replacement.number());
        }

        @Override
        public long compareAndRelease(MappedRange expected) {
            FileLocation at = expected.location();
            return JniSkipListNative.compareAndRelease(handle, expected.offset(), expected.len(),
                    at.offset(), at.majorVer(), at.minorVer(), (byte) at.number());
        }

        @Override
        public long release() {
            return JniSkipListNative.release(handle);
        }

        @Override
        public void copyTo(VerifiedMap destination) {
            long other = ((Native) destination).handle;
            // Matches nothing. Makes both maps call back on this thread.
            JniSkipListNative.compareAndRelease(handle, 0, 0, 0, 0, 0, (byte) 0);
            JniSkipListNative.compareAndRelease(other, 0, 0, 0, 0, 0, (byte) 0);
            JniSkipListNative.copySkipList(handle, other);
        }

        @Override
        public void forEach(Reader reader) {
            walk(JniSkipListNative.getAllNodes(handle), reader);
        }

        @Override
        public void forEach(long offset, int len, Reader reader) {
            walk(JniSkipListNative.getNodes(handle, offset, len), reader);
        }

        @Override
        public List<Long> counters() {
            return List.of((long) JniSkipListNative.getSkipListSize(handle),
                    JniSkipListNative.getSkipListValidLen(handle),
                    JniSkipListNative.getSkipLIstRawLen(handle),
                    (long) JniSkipListNative.getSkipListRawCount(handle));
        }

        @Override
        public void close() {
            JniSkipListNative.destorySkipList(handle);
        }

        private static void walk(long[] run, Reader reader) {
            for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
                ByteBuf buffer = JniSkipListNative.getNodeFileBuff(node);
                reader.read(NodeReader.range(node), buffer == null ? null : buffer.slice());
            }
        }
    }
}
