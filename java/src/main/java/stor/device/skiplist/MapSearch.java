package stor.device.skiplist;

import java.util.Arrays;

/**
 * Finds nodes of a map: in place where that is possible, otherwise by its native queries. The caller
 * is inside the map's guard; what is found ends with the next change.
 *
 * <p>A walk over what shares a byte with a range goes from the first node that ends after its start
 * to the first that does not begin before its end. The end mark begins before no end.
 */
final class MapSearch {
    private MapSearch() {
    }

    /** Gives the first range that ends after a position, which may be the end mark. */
    static long firstEndingAfter(long handle, long position) {
        return NativeLayout.IS_TRUSTED
                ? InPlaceSearch.firstEndingAfter(handle, position)
                : JniSkipListNative.getNodes(handle, position, 0)[0];
    }

    /** Gives the first range, or the end mark. */
    static long first(long handle) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.next(NativeLayout.head(handle), 0)
                : JniSkipListNative.getAllNodes(handle)[0];
    }

    private static long endMark(long handle) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.tail(handle)
                : JniSkipListNative.getAllNodes(handle)[1];
    }

    /** Lists the nodes that share a byte with what is between two positions. */
    static long[] nodes(long handle, long offset, long end) {
        long[] nodes = new long[16];
        int count = 0;
        for (long node = firstEndingAfter(handle, offset); NodeReader.offset(node) < end;
                node = NodeReader.next(node)) {
            if (count == nodes.length) {
                nodes = Arrays.copyOf(nodes, 2 * count);
            }
            nodes[count++] = node;
        }
        return Arrays.copyOf(nodes, count);
    }

    /** Gives the range before another or before the end mark; the end mark if there is none. */
    static long before(long handle, long node) {
        long first = first(handle);
        if (first == node) {
            return endMark(handle);
        }
        return NativeLayout.IS_TRUSTED
                ? InPlaceSearch.lastStartingBy(handle, NodeReader.offset(node) - 1)
                : beforeByQueries(handle, first, node);
    }

    /**
     * Ranges know their successors only: unless it ends where the node starts, halves the stretch in
     * which it ends until it is followed by the node, with up to 64 queries.
     */
    private static long beforeByQueries(long handle, long first, long node) {
        long touching = firstEndingAfter(handle, NodeReader.offset(node) - 1);
        if (touching != node) {
            return touching;
        }
        // The range found at `low` is always before the node, that at `high` is the node.
        long candidate = first;
        long low = NodeReader.offset(candidate);
        long high = NodeReader.offset(node);
        while (NodeReader.next(candidate) != node) {
            long middle = low + (high - low >>> 1);
            long there = firstEndingAfter(handle, middle);
            if (there == node) {
                high = middle;
            } else {
                candidate = there;
                low = middle;
            }
        }
        return candidate;
    }

    /** Gives the first of a node and its successors that is no hole; may be the end mark. */
    static long storedFrom(long node) {
        long stored = node;
        while (NodeReader.isHole(stored)) {
            stored = NodeReader.next(stored);
        }
        return stored;
    }

    /** Gives the first of a node and its predecessors that is no hole; may be the end mark. */
    static long storedUpTo(long handle, long node) {
        long stored = node;
        while (NodeReader.isHole(stored)) {
            stored = before(handle, stored);
        }
        return stored;
    }

    /** Gives the last range, or the end mark. */
    static long last(long handle) {
        return NativeLayout.IS_TRUSTED
                ? orEndMark(handle, InPlaceSearch.last(handle))
                : floor(handle, Long.MAX_VALUE);
    }

    private static long orEndMark(long handle, long node) {
        return node == NativeLayout.head(handle) ? endMark(handle) : node;
    }

    /** Gives the last range that starts at or before a position, or the end mark. */
    static long floor(long handle, long position) {
        if (NativeLayout.IS_TRUSTED) {
            return orEndMark(handle, InPlaceSearch.lastStartingBy(handle, position));
        }
        // The end mark starts at the last position of all.
        long start = Math.min(position, Long.MAX_VALUE - 1);
        long node = firstEndingAfter(handle, start);
        return NodeReader.offset(node) <= start ? node : before(handle, node);
    }

    /** Gives the first range that starts at or after a position, or the end mark. */
    static long ceiling(long handle, long position) {
        if (NativeLayout.IS_TRUSTED) {
            return InPlaceSearch.firstStartingFrom(handle, position);
        }
        long node = firstEndingAfter(handle, position);
        return NodeReader.offset(node) >= position ? node : NodeReader.next(node);
    }
}
