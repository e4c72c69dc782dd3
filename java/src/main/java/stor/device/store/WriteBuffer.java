package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.util.ArrayList;
import java.util.List;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * What was written and discarded and is not in the file map yet: in the active map, which takes
 * what comes, and in the frozen map, which a flush writes out and nobody changes.
 *
 * <p>Of a range in these maps, data has a buffer, a hole was discarded, and what has neither is in
 * the file map by now. All methods are called with the index lock held.
 */
final class WriteBuffer {
    private final StoreSettings settings;
    private OffHeapRangeMap active;
    private OffHeapRangeMap frozen;
    private long activeBytes;
    private long frozenBytes;

    WriteBuffer(StoreSettings settings) {
        this.settings = settings;
        active = newMap();
    }

    /**
     * Takes data.
     *
     * @param sequence what no other write has, so that a flush gives back the buffers of this write
     *     and of no later one
     */
    void write(long offset, int length, ByteBuf data, long sequence) {
        FileLocation id =
                new FileLocation(0, 0, (int) (sequence >>> Integer.SIZE), (int) sequence);
        activeBytes += length;
        try {
            active.insert(offset, length, id, data);
        } catch (OutOfMemoryError | IllegalArgumentException refused) {
            // Anything else comes from a buffer that was overwritten, after the insert.
            activeBytes -= length;
            throw refused;
        }
    }

    /**
     * Takes a hole: puts one into each stretch that is none yet. One that covered the end of an
     * older one would be joined with it, to more than a length can say if holes are large.
     */
    void discard(long offset, int length) {
        List<MappedRange> holes = new ArrayList<>();
        active.forEach(offset, length, (start, len, number, place, majorVer, minorVer, range) -> {
            if (Holes.isHole(majorVer, minorVer)) {
                holes.add(new MappedRange(start, len, false, FileLocation.EMPTY));
            }
        });
        long from = offset;
        for (MappedRange hole : holes) {
            punch(from, hole.offset());
            from = hole.end();
        }
        punch(from, offset + length);
    }

    private void punch(long from, long to) {
        if (from < to) {
            active.insert(from, (int) (to - from), FileLocation.EMPTY);
        }
    }

    /** Makes the active map the frozen one, if there is none; tells whether there is one now. */
    boolean freeze() {
        if (frozen == null && active.size() > 0) {
            OffHeapRangeMap fresh = newMap();
            frozen = active;
            frozenBytes = activeBytes;
            active = fresh;
            activeBytes = 0;
        }
        return frozen != null;
    }

    OffHeapRangeMap frozen() {
        return frozen;
    }

    /** Drops the frozen map, all of which is in the file map. */
    void drop() {
        OffHeapRangeMap written = frozen;
        frozen = null;
        frozenBytes = 0;
        written.close();
    }

    /** Gives the maps, the newest first. */
    List<OffHeapRangeMap> maps() {
        return frozen == null ? List.of(active) : List.of(active, frozen);
    }

    /** Copies the maps, the newest first. */
    List<OffHeapRangeMap> copy() {
        List<OffHeapRangeMap> copies = new ArrayList<>();
        try {
            for (OffHeapRangeMap map : maps()) {
                copies.add(newMap());
                map.copyTo(copies.get(copies.size() - 1));
            }
            return copies;
        } catch (RuntimeException | Error failure) {
            Thoroughly.forEach(copies, OffHeapRangeMap::close);
            throw failure;
        }
    }

    int ranges() {
        return active.size() + (frozen == null ? 0 : frozen.size());
    }

    /** Counts what was accepted, overwritten or not: all of it may still be held in buffers. */
    long bytes() {
        return activeBytes + frozenBytes;
    }

    void close() {
        Thoroughly.forEach(maps(), OffHeapRangeMap::close);
    }

    private OffHeapRangeMap newMap() {
        return OffHeapRangeMap.create(settings.height(), settings.sectorSize());
    }
}
