package stor.device.skiplist;

/**
 * Finds nodes of a map as the native side does, in the same memory: first the signposts, or in a
 * small map the links, then a few nodes in their order. The caller is inside the map's guard; what
 * is found ends with the next change.
 *
 * <p>Serves maps whose ranges are in order, as they are in all that {@link OffHeapRangeMap} makes.
 */
final class InPlaceSearch {
    /** No range begins at the last position of all, which the end mark has. */
    private static final long LAST_START = Long.MAX_VALUE - 1;

    private InPlaceSearch() {
    }

    /** Gives the first range that ends after a position, or the end mark. */
    static long firstEndingAfter(long map, long position) {
        long tail = NativeLayout.tail(map);
        long node = nearStartingBy(map, Math.min(position, LAST_START));
        if (node == NativeLayout.head(map)) {
            node = NativeLayout.next(node, 0);
        }
        while (node != tail && NativeLayout.offset(node) + NativeLayout.len(node) <= position) {
            node = NativeLayout.next(node, 0);
        }
        return node;
    }

    /** Gives the last range that begins at or before a position, or the node before the first. */
    static long lastStartingBy(long map, long position) {
        long start = Math.min(position, LAST_START);
        return walk(nearStartingBy(map, start), start);
    }

    /** Gives the last range, or the node before the first. */
    static long last(long map) {
        int chunks = NativeLayout.chunkCount(map);
        return chunks == 0
                ? byLinks(map, LAST_START)
                : walk(lastSignpost(map, chunks), LAST_START);
    }

    /** Goes on to the last node that begins at or before a start, as the first one does. */
    private static long walk(long from, long start) {
        long node = from;
        long next = NativeLayout.next(node, 0);
        while (NativeLayout.offset(next) <= start) {
            node = next;
            next = NativeLayout.next(node, 0);
        }
        return node;
    }

    /** Gives the first range that begins at or after a position, or the end mark. */
    static long firstStartingFrom(long map, long position) {
        // All begin after the first position of all, or there.
        return position == Long.MIN_VALUE
                ? NativeLayout.next(NativeLayout.head(map), 0)
                : NativeLayout.next(lastStartingBy(map, position - 1), 0);
    }

    /**
     * Gives a node that begins at or before a start, with few nodes between it and the last one
     * that does; or the node before the first.
     */
    private static long nearStartingBy(long map, long start) {
        int chunks = NativeLayout.chunkCount(map);
        return chunks == 0 ? byLinks(map, start) : bySignposts(map, chunks, start);
    }

    private static long byLinks(long map, long start) {
        long node = NativeLayout.head(map);
        for (int level = NativeLayout.topLevel(map); level >= 0; level--) {
            long next = NativeLayout.next(node, level);
            while (NativeLayout.offset(next) <= start) {
                node = next;
                next = NativeLayout.next(node, level);
            }
        }
        return node;
    }

    private static long bySignposts(long map, int chunks, long start) {
        int index = countUpTo(NativeLayout.bounds(map), chunks - 1, start);
        long chunk = NativeLayout.chunk(map, index);
        int before = countUpTo(NativeLayout.starts(chunk), NativeLayout.CHUNK_PLACES - 1, start);
        return before > 0 ? NativeLayout.node(chunk, before - 1) : lastSignpost(map, index);
    }

    /** Gives the last node in a number of chunks, or the node before the first range. */
    private static long lastSignpost(long map, int chunks) {
        if (chunks == 0) {
            return NativeLayout.head(map);
        }
        long chunk = NativeLayout.chunk(map, chunks - 1);
        int count = NativeLayout.nodeCount(chunk);
        // Where there is one chunk only, it may be empty.
        return count == 0 ? NativeLayout.head(map) : NativeLayout.node(chunk, count - 1);
    }

    /** Counts those of a number of ascending starts that are at most a key. */
    private static int countUpTo(long starts, int size, long key) {
        int counted = 0;
        for (int left = size; left > 0; left >>>= 1) {
            int half = left + 1 >>> 1;
            counted += NativeLayout.start(starts, counted + half - 1) <= key ? half : 0;
        }
        return counted;
    }
}
