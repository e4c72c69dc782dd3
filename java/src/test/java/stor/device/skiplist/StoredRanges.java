package stor.device.skiplist;

import java.util.ArrayList;
import java.util.List;
import stor.device.replay.CheckedMap;
import stor.device.replay.Range;

/** Reads what a map holds, for tests that say themselves what that should be. */
final class StoredRanges {
    private StoredRanges() {
    }

    /** Gives the node handles of all ranges. */
    static List<Long> nodes(long map) {
        long[] run = JniSkipListNative.getAllNodes(map);
        List<Long> nodes = new ArrayList<>();
        for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
            nodes.add(node);
        }
        return nodes;
    }

    /** Gives all ranges, without a word on their buffers. */
    static List<Range> of(long map) {
        return nodes(map).stream()
                .map(node -> CheckedMap.readNode(node, Range.NO_BUFFER))
                .toList();
    }
}
