package stor.device.skiplist;

/**
 * A row of ranges as they were when {@link OffHeapRangeMap#read} filled it: arrays that are made
 * once and filled as often as one likes, with no object for any range. Holds nothing of the map. For
 * one thread at a time.
 *
 * <pre>
 *   RangeBatch batch = new RangeBatch(1000);
 *   long from = start;
 *   boolean more;
 *   do {
 *       more = map.read(from, end - from, batch);
 *       ... batch.offset(i) for i in 0 .. batch.size() - 1 ...
 *       from = batch.size() == 0 ? end : batch.end();
 *   } while (more);
 * </pre>
 */
public final class RangeBatch {
    private final long[] offsets;
    private final int[] lens;
    private final int[] fileNumbers;
    private final int[] fileOffsets;
    private final int[] majorVers;
    private final int[] minorVers;
    private final boolean[] memoryTypes;
    private int size;

    /**
     * Makes an empty row.
     *
     * @param capacity the most ranges that it takes, at least 1
     * @throws IllegalArgumentException if {@code capacity} is less than 1
     */
    public RangeBatch(int capacity) {
        Arguments.within("RangeBatch", "capacity", capacity, 1, Integer.MAX_VALUE);
        offsets = new long[capacity];
        lens = new int[capacity];
        fileNumbers = new int[capacity];
        fileOffsets = new int[capacity];
        majorVers = new int[capacity];
        minorVers = new int[capacity];
        memoryTypes = new boolean[capacity];
    }

    /**
     * Tells how many ranges the row takes.
     *
     * @return the number of ranges
     */
    public int capacity() {
        return offsets.length;
    }

    /**
     * Tells how many ranges were read.
     *
     * @return the number of ranges
     */
    public int size() {
        return size;
    }

    /**
     * Gives the first byte of a range.
     *
     * @param index which range, 0 to {@link #size} - 1
     * @return its first byte
     * @throws IndexOutOfBoundsException if there is no such range, as in all methods with an index
     */
    public long offset(int index) {
        return offsets[checked(index)];
    }

    /**
     * Gives the length of a range.
     *
     * @param index which range
     * @return its length in bytes
     */
    public int len(int index) {
        return lens[checked(index)];
    }

    /**
     * Gives the file of a range.
     *
     * @param index which range
     * @return its file number, 0 to 255
     */
    public int fileNumber(int index) {
        return fileNumbers[checked(index)];
    }

    /**
     * Gives where a range lies in its file.
     *
     * @param index which range
     * @return the offset of its first byte in the file
     */
    public int fileOffset(int index) {
        return fileOffsets[checked(index)];
    }

    /**
     * Gives the major version of a range.
     *
     * @param index which range
     * @return the major version of its location
     */
    public int majorVer(int index) {
        return majorVers[checked(index)];
    }

    /**
     * Gives the minor version of a range.
     *
     * @param index which range
     * @return the minor version of its location
     */
    public int minorVer(int index) {
        return minorVers[checked(index)];
    }

    /**
     * Tells whether a range was inserted with a buffer.
     *
     * @param index which range
     * @return whether it was
     */
    public boolean isMemoryType(int index) {
        return memoryTypes[checked(index)];
    }

    /**
     * Gives a range as an object.
     *
     * @param index which range
     * @return a copy
     */
    public MappedRange range(int index) {
        return new MappedRange(offset(index), len(index), isMemoryType(index), new FileLocation(
                fileNumber(index), fileOffset(index), majorVer(index), minorVer(index)));
    }

    /**
     * Gives where to go on reading.
     *
     * @return the first byte after the last range
     * @throws IndexOutOfBoundsException if the row is empty
     */
    public long end() {
        return offset(size - 1) + len(size - 1);
    }

    /**
     * Reads the nodes that begin before an end, from a first one of a map whose guard the caller is
     * inside; tells whether there are more of them.
     */
    boolean fill(long first, long end) {
        size = 0;
        long node = first;
        for (; NodeReader.offset(node) < end && size < offsets.length;
                node = NodeReader.next(node)) {
            offsets[size] = NodeReader.offset(node);
            lens[size] = NodeReader.len(node);
            fileNumbers[size] = NodeReader.fileNumber(node);
            fileOffsets[size] = NodeReader.fileOffset(node);
            majorVers[size] = NodeReader.majorVer(node);
            minorVers[size] = NodeReader.minorVer(node);
            memoryTypes[size] = NodeReader.isMemoryType(node);
            size++;
        }
        return NodeReader.offset(node) < end;
    }

    private int checked(int index) {
        if (index < 0 || index >= size) {
            throw new IndexOutOfBoundsException(
                    "RangeBatch: index: " + index + " (expected: "
                            + (size == 0 ? "none, it is empty" : "0 to " + (size - 1)) + ")");
        }
        return index;
    }
}
