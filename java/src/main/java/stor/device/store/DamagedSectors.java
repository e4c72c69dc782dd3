package stor.device.store;

import java.io.IOException;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;
import java.util.function.BiPredicate;
import stor.device.skiplist.FileLocation;

/**
 * The sectors that were found unreadable, by reads and by compactions: where each lies on the
 * device and in the files. Compaction leaves them where they are. Safe for use by several threads.
 */
final class DamagedSectors {
    private final Map<Long, FileLocation> byOffset = new TreeMap<>();

    /** Notes a sector, and gives the exception that names it. */
    synchronized IOException note(long offset, FileLocation place, String what) {
        byOffset.put(offset, place);
        return new IOException("sector at offset " + offset + ", "
                + SegmentFiles.name(SegmentFiles.id(place)) + " at byte " + place.offset() + ": "
                + what);
    }

    /** Forgets those that do not lie there any more, because they were overwritten or discarded. */
    synchronized void keepIf(BiPredicate<Long, FileLocation> stillThere) {
        byOffset.entrySet().removeIf(
                entry -> !stillThere.test(entry.getKey(), entry.getValue()));
    }

    synchronized void clear() {
        byOffset.clear();
    }

    synchronized List<Long> offsets() {
        return List.copyOf(byOffset.keySet());
    }

    synchronized List<FileLocation> places() {
        return List.copyOf(byOffset.values());
    }
}
