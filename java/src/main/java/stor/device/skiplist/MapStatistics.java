package stor.device.skiplist;

/**
 * What a map holds, counted range by range.
 *
 * @param ranges the stored ranges, holes not among them
 * @param holes the {@linkplain MappedRange#isHole holes}
 * @param coveredBytes the bytes of the stored ranges, exactly
 * @param buffers the ranges that hold a buffer
 * @param bufferedBytes the bytes of these ranges
 * @param nativeBytes what the map's records are charged against the limit
 */
public record MapStatistics(int ranges, int holes, long coveredBytes, int buffers,
        long bufferedBytes, long nativeBytes) {
    // A map with its environment and its two end marks; a range; a buffer's handle.
    private static final long MAP_BYTES = 144 + 32 + 2 * 104;
    private static final long RANGE_BYTES = 104;
    private static final long BUFFER_BYTES = 32;

    /** Counts a map whose guard the caller is inside. */
    static MapStatistics count(long handle) {
        int ranges = 0;
        int holes = 0;
        long coveredBytes = 0;
        int buffers = 0;
        long bufferedBytes = 0;
        for (long node = MapSearch.first(handle); !NodeReader.isEndMark(node);
                node = NodeReader.next(node)) {
            if (NodeReader.isHole(node)) {
                holes++;
                continue;
            }
            int len = NodeReader.len(node);
            ranges++;
            coveredBytes += len;
            if (NodeReader.isMemoryType(node) && NodeReader.buffer(node) != null) {
                buffers++;
                bufferedBytes += len;
            }
        }
        long nativeBytes =
                MAP_BYTES + ((long) ranges + holes) * RANGE_BYTES + buffers * BUFFER_BYTES;
        return new MapStatistics(
                ranges, holes, coveredBytes, buffers, bufferedBytes, nativeBytes);
    }
}
