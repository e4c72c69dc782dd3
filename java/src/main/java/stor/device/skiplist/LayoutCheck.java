package stor.device.skiplist;

/** Compares what {@link NativeLayout} reads of a map with what the native methods say of it. */
final class LayoutCheck {
    private static final int HEIGHT = 4;
    private static final int STRIDE = 16;
    /** So few that they have no signposts. */
    private static final int FEW = 40;
    /** So many that the signposts have a few chunks: one in four has one, 127 fit into a chunk. */
    private static final int MANY = 1400;
    /** How far apart the positions are that are searched; meets all places in a range. */
    private static final int STEP = 37;

    private LayoutCheck() {
    }

    /** Tells whether all was as expected. Reads no address that nobody vouches for. */
    static boolean succeeds() {
        long map = 0;
        try {
            map = JniSkipListNative.createSkipList(HEIGHT, 1);
            fill(map, 0, FEW);
            if (!nodesAgree(map) || !searchesAgree(map, FEW)) {
                return false;
            }
            fill(map, FEW, MANY);
            return searchesAgree(map, MANY);
        } catch (RuntimeException | Error e) {
            // Without memory or stack for the check, too: the native methods serve as well.
            return false;
        } finally {
            if (map != 0) {
                JniSkipListNative.destorySkipList(map);
            }
        }
    }

    private static void fill(long map, int from, int to) {
        for (int i = from; i < to; i++) {
            insert(map, i);
        }
    }

    /** Inserts a range that none of its neighbours touches, or its left one only; all differ. */
    private static void insert(long map, int i) {
        long offset = (i - 20L) * STRIDE;
        int len = i % STRIDE + 1;
        byte number = (byte) (i * 7);
        if (i % 3 == 0) {
            JniSkipListNative.insertWithBuff(map, offset, len, ~i, i + 1, -i, number, null);
        } else {
            JniSkipListNative.insert(map, offset, len, ~i, i + 1, -i, number);
        }
    }

    private static boolean nodesAgree(long map) {
        long[] run = JniSkipListNative.getAllNodes(map);
        if (NativeLayout.tail(map) != run[1]) {
            return false;
        }
        boolean same = keyAgrees(run[1]) && NativeLayout.next(NativeLayout.head(map), 0) == run[0];
        for (long node = run[0]; same && node != run[1]; node = JniSkipListNative.nextNode(node)) {
            same = keyAgrees(node) && locationAgrees(node)
                    && NativeLayout.next(node, 0) == JniSkipListNative.nextNode(node);
        }
        return same;
    }

    private static boolean keyAgrees(long node) {
        return NativeLayout.offset(node) == JniSkipListNative.getNodeIndexOffset(node)
                && NativeLayout.len(node) == JniSkipListNative.getNodeIndexLen(node);
    }

    private static boolean locationAgrees(long node) {
        return NativeLayout.isMemoryType(node) == JniSkipListNative.getNodeFileType(node)
                && NativeLayout.fileNumber(node) == JniSkipListNative.getNodeFileNumber(node)
                && NativeLayout.fileOffset(node) == JniSkipListNative.getNodeFileOffset(node)
                && NativeLayout.majorVer(node) == JniSkipListNative.getNodeFileMajorVer(node)
                && NativeLayout.minorVer(node) == JniSkipListNative.getNodeFileMinorVer(node);
    }

    private static boolean searchesAgree(long map, int size) {
        boolean same = NativeLayout.next(InPlaceSearch.last(map), 0) == NativeLayout.tail(map);
        for (long position = -21L * STRIDE; same && position < (size - 19L) * STRIDE;
                position += STEP) {
            long found = JniSkipListNative.getNodes(map, position, 0)[0];
            long before = InPlaceSearch.lastStartingBy(map, position);
            same = InPlaceSearch.firstEndingAfter(map, position) == found
                    && (JniSkipListNative.getNodeIndexOffset(found) <= position
                            ? before == found
                            : JniSkipListNative.nextNode(before) == found);
        }
        return same;
    }
}
