package stor.device.store;

import java.io.Closeable;
import java.io.IOException;
import java.util.List;
import java.util.function.Consumer;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * Where the device's sectors lie in segment files, in memory and in the journal. A change is in the
 * journal first. So the map never knows more than what would be read from the journal after a power
 * cut, and a segment that it does not refer to is needed by nobody.
 *
 * <p>Commits run one after another, in the order in which the journal has them. The map itself is
 * guarded by the index lock, which a commit takes for each change.
 */
final class FileMap implements Closeable {
    private final Object index;
    private OffHeapRangeMap map;
    private final Journal journal;
    private final Reserve reserve;
    private final SegmentFiles files;
    // In the journal, and not yet all in the map: only if native memory has run out.
    private List<Change> unapplied = List.of();
    private Consumer<Change> onApplied = change -> { };
    private long sequence;

    FileMap(Object index, OffHeapRangeMap map, Journal journal, Reserve reserve,
            SegmentFiles files, long sequence) {
        this.index = index;
        this.map = map;
        this.journal = journal;
        this.reserve = reserve;
        this.files = files;
        this.sequence = sequence;
    }

    /** Gives the map, to be used and forgotten under the index lock, and changed by nobody else. */
    OffHeapRangeMap map() {
        return map;
    }

    /** Calls back under the index lock after each change that the map has taken. */
    void onApplied(Consumer<Change> callback) {
        onApplied = callback;
    }

    /**
     * Makes changes that last. If this fails, they may come to last or not; the map does not have
     * them.
     *
     * @param changes what is written is forced to disk already
     * @param newest the sequence of the newest write in them, or 0
     */
    synchronized void commit(List<Change> changes, long newest) throws IOException {
        makeSure();
        sequence = Math.max(sequence, newest);
        for (int from = 0; from < changes.size(); from += mostChanges()) {
            List<Change> batch =
                    changes.subList(from, Math.min(changes.size(), from + mostChanges()));
            reserve.spend(() -> journal.append(batch, sequence));
            unapplied = batch;
            apply();
        }
        if (journal.isLong()) {
            checkpoint();
        }
    }

    /**
     * Makes the map anew without its holes, which hide nothing: a map drops no range, and holes in
     * scattered places would pile up. If native memory has no room for a second map, they stay.
     */
    synchronized void dropHoles() {
        synchronized (index) {
            OffHeapRangeMap full = map;
            try {
                map = withoutHoles();
                full.close();
            } catch (OutOfMemoryError refused) {
                // They are in nobody's way but this store's.
            }
        }
    }

    private OffHeapRangeMap withoutHoles() {
        OffHeapRangeMap dense = OffHeapRangeMap.create(map.height(), map.sectorSize());
        try {
            map.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                if (!Holes.isHole(majorVer, minorVer)) {
                    dense.insert(offset, len,
                            new FileLocation(number, fileOffset, majorVer, minorVer));
                }
            });
            return dense;
        } catch (RuntimeException | Error failure) {
            dense.close();
            throw failure;
        }
    }

    private static int mostChanges() {
        return Journal.BATCH_BYTES / Change.MOST_BYTES;
    }

    private void apply() {
        for (Change change : unapplied) {
            synchronized (index) {
                if (change.applyTo(map)) {
                    onApplied.accept(change);
                }
            }
        }
        unapplied = List.of();
    }

    /** Settles what an earlier failure has left open. Afterwards, map and journal are the same. */
    synchronized void makeSure() throws IOException {
        apply();
        journal.makeSure();
    }

    /** Writes the map out, if it can be, so that reopening reads nothing else. */
    synchronized void checkpoint() {
        try {
            makeSure();
            journal.checkpoint(map, sequence, files.next());
        } catch (IOException | OutOfMemoryError e) {
            // The old journal goes on and has all of it, and the next commit tries again.
        }
    }

    /** Lets nothing be committed while it reads the map, which the journal agrees with. */
    synchronized void whileSettled(Consumer<OffHeapRangeMap> reader) throws IOException {
        makeSure();
        synchronized (index) {
            reader.accept(map);
        }
    }

    synchronized long journalBytes() {
        return journal.bytes();
    }

    @Override
    public synchronized void close() throws IOException {
        try (journal) {
            map.close();
        }
    }
}
