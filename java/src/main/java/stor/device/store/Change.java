package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * A change of the file map. It is applied in the same way when it happens and when the journal is
 * read, and may be applied again from any point on: the map is the same afterwards.
 *
 * @param kind what happened
 * @param offset the first byte on the device
 * @param length how many bytes
 * @param from where a moved range lay; otherwise null
 * @param to where the range lies now; null if it was discarded
 */
record Change(Kind kind, long offset, int length, FileLocation from, FileLocation to) {
    /** The most bytes that a change takes in the journal. */
    static final int MOST_BYTES = 1 + Long.BYTES + Integer.BYTES + 2 * (1 + 2 * Integer.BYTES);

    enum Kind {
        WRITTEN,
        DISCARDED,
        /** Copied, and to be redirected where it is still what was copied. */
        MOVED
    }

    static Change written(long offset, int length, FileLocation to) {
        return new Change(Kind.WRITTEN, offset, length, null, to);
    }

    static Change discarded(long offset, int length) {
        return new Change(Kind.DISCARDED, offset, length, null, null);
    }

    static Change moved(long offset, int length, FileLocation from, FileLocation to) {
        return new Change(Kind.MOVED, offset, length, from, to);
    }

    /** Tells whether it changed anything. */
    boolean applyTo(OffHeapRangeMap fileMap) {
        switch (kind) {
            case WRITTEN -> fileMap.insert(offset, length, to);
            case DISCARDED -> punch(fileMap);
            case MOVED -> {
                return fileMap.compareAndSet(offset, length, from, to);
            }
            default -> throw new AssertionError(kind);
        }
        return true;
    }

    void encode(ByteBuffer bytes) {
        bytes.put((byte) kind.ordinal()).putLong(offset).putInt(length);
        if (from != null) {
            encode(from, bytes);
        }
        if (to != null) {
            encode(to, bytes);
        }
    }

    static Change decode(ByteBuffer bytes) throws IOException {
        int kind = bytes.get();
        if (kind < 0 || kind >= Kind.values().length) {
            throw new IOException("kind of change: " + kind + " (expected: 0 to "
                    + (Kind.values().length - 1) + ")");
        }
        long offset = bytes.getLong();
        int length = bytes.getInt();
        return switch (Kind.values()[kind]) {
            case WRITTEN -> written(offset, length, decodeLocation(bytes));
            case DISCARDED -> discarded(offset, length);
            case MOVED -> moved(offset, length, decodeLocation(bytes), decodeLocation(bytes));
        };
    }

    private static void encode(FileLocation place, ByteBuffer bytes) {
        bytes.put((byte) place.number()).putInt(place.offset()).putInt(place.majorVer());
    }

    private static FileLocation decodeLocation(ByteBuffer bytes) {
        return new FileLocation(Byte.toUnsignedInt(bytes.get()), bytes.getInt(), bytes.getInt(), 0);
    }

    /**
     * Puts one hole from the first data in the range to the last. Never one that covers an end of
     * an older hole: the two would be joined, to more than a length can say if holes are large.
     */
    private void punch(OffHeapRangeMap fileMap) {
        long first = offset + length;
        long last = offset;
        for (MappedRange range : fileMap.ranges(offset, length)) {
            first = Math.min(first, Math.max(offset, range.offset()));
            last = Math.min(offset + length, range.end());
        }
        if (first < last) {
            fileMap.insert(first, (int) (last - first), FileLocation.EMPTY);
        }
    }
}
