package stor.device.skiplist;

/**
 * The hole that takes the place of what is stored in a range.
 *
 * @param start the first byte of the hole
 * @param len its length
 * @param removed the bytes that are stored in the range; 0 if there is nothing to do
 */
record HolePlan(long start, int len, long removed) {
    /**
     * Plans the hole from the first to the last stored byte in a range, widened by the holes next
     * to it up to the stored ranges on both sides, as far as its length can be said. The caller is
     * inside the map's guard.
     *
     * @param len the length of the range, at most 2^31-1
     */
    static HolePlan of(long handle, long offset, long len) {
        long end = offset + len;
        long first = 0;
        long last = 0;
        long removed = 0;
        for (long node = MapSearch.firstEndingAfter(handle, offset);
                NodeReader.offset(node) < end; node = NodeReader.next(node)) {
            if (!NodeReader.isHole(node)) {
                removed += Math.min(end, NodeReader.end(node))
                        - Math.max(offset, NodeReader.offset(node));
                first = first == 0 ? node : first;
                last = node;
            }
        }
        if (removed == 0) {
            return new HolePlan(offset, 0, 0);
        }
        long from = Math.max(offset, NodeReader.offset(first));
        long to = Math.min(end, NodeReader.end(last));
        if (NodeReader.end(last) <= end) {
            to = widenRight(last, from, to);
        }
        if (NodeReader.offset(first) >= offset) {
            from = widenLeft(handle, first, from, to);
        }
        return new HolePlan(from, (int) (to - from), removed);
    }

    private static long widenRight(long last, long from, long to) {
        long end = to;
        long node = NodeReader.next(last);
        while (NodeReader.isHole(node) && isLength(NodeReader.end(node) - from)) {
            end = NodeReader.end(node);
            node = NodeReader.next(node);
        }
        return end;
    }

    private static long widenLeft(long handle, long first, long from, long to) {
        long start = from;
        long node = MapSearch.before(handle, first);
        while (NodeReader.isHole(node) && isLength(to - NodeReader.offset(node))) {
            start = NodeReader.offset(node);
            node = MapSearch.before(handle, node);
        }
        return start;
    }

    private static boolean isLength(long length) {
        return length > 0 && length <= Integer.MAX_VALUE;
    }
}
