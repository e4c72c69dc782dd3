package stor.device.store;

import java.io.IOException;
import java.nio.file.Path;
import java.util.List;
import java.util.Map;
import java.util.TreeMap;

/**
 * The segment files of a store: gives out their numbers, and deletes a file when nobody needs it.
 *
 * <p>A segment is <em>open</em> while a writer appends to it, then <em>sealed</em>. A sealed
 * segment in which nothing is live is <em>retired</em>, and deleted when nobody has it pinned any
 * more: neither a read under way nor a snapshot. Segments are counted; a location names one by the
 * low 8 bits of its count and, as its generation, the rest. So there may be as many as the disk
 * holds, and a location in an old file never equals one in a new.
 *
 * <p>Safe for use by several threads.
 */
final class SegmentFiles {
    /** As many as the number in a location can tell apart. */
    private static final int NUMBERS = 256;

    private final Path folder;
    private final Map<Long, Segment> byId = new TreeMap<>();
    private long created;
    private long bytes;
    private long peakBytes;
    private long appendedBytes;
    private int peakCount;

    SegmentFiles(Path folder) {
        this.folder = folder;
    }

    /** Makes an open segment. */
    synchronized Segment create() throws IOException {
        Segment segment = new Segment(
                folder, (int) (created % NUMBERS), (int) (created / NUMBERS) + 1);
        created++;
        byId.put(id(segment.number, segment.generation), segment);
        peakCount = Math.max(peakCount, count());
        return segment;
    }

    /** Gives the count of the segment that a location names. */
    static long id(int number, int generation) {
        return (generation - 1L) * NUMBERS + number;
    }

    /** Finds the segment of a location that a map holds, and keeps it until it is unpinned. */
    synchronized Segment pin(int number, int generation) {
        Segment segment = byId.get(id(number, generation));
        if (segment == null) {
            throw new IllegalStateException("segment " + number + ", generation " + generation
                    + ": is no segment");
        }
        segment.pins++;
        return segment;
    }

    /** Keeps all segments that are not retired until they are unpinned. */
    synchronized List<Segment> pinAll() {
        List<Segment> pinned = inUse().stream().filter(segment -> !segment.retired).toList();
        pinned.forEach(segment -> segment.pins++);
        return pinned;
    }

    synchronized void unpin(Segment segment) throws IOException {
        segment.pins--;
        deleteIfDone(segment);
    }

    synchronized void seal(Segment segment) {
        segment.sealed = true;
    }

    /** Lists the segments that compaction may empty or retire. */
    synchronized List<Segment> sealed() {
        return inUse().stream().filter(segment -> segment.sealed && !segment.retired).toList();
    }

    synchronized void retire(Segment segment) throws IOException {
        segment.retired = true;
        deleteIfDone(segment);
    }

    synchronized int count() {
        return byId.size();
    }

    synchronized int peakCount() {
        return peakCount;
    }

    /** Counts bytes at the end of a segment. */
    synchronized void noteAppended(Segment segment, int length) {
        segment.bytes += length;
        bytes += length;
        appendedBytes += length;
        peakBytes = Math.max(peakBytes, bytes);
    }

    /** Gives the bytes of all files. */
    synchronized long bytes() {
        return bytes;
    }

    synchronized long peakBytes() {
        return peakBytes;
    }

    /** Gives the bytes ever appended, those of deleted files included. */
    synchronized long appendedBytes() {
        return appendedBytes;
    }

    synchronized void deleteAll() throws IOException {
        for (Segment segment : inUse()) {
            byId.remove(segment.id());
            segment.delete();
        }
    }

    private List<Segment> inUse() {
        return List.copyOf(byId.values());
    }

    private void deleteIfDone(Segment segment) throws IOException {
        if (segment.retired && segment.pins == 0 && byId.remove(segment.id()) != null) {
            bytes -= segment.bytes;
            segment.delete();
        }
    }
}
