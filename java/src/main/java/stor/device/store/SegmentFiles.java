package stor.device.store;

import java.io.IOException;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.Objects;

/**
 * The segment files of a store: gives out their numbers, and deletes a file when nobody needs it.
 *
 * <p>A segment is <em>open</em> while a writer appends to it, then <em>sealed</em>. A sealed
 * segment in which nothing is live is <em>retired</em>, and deleted when nobody has it pinned any
 * more: neither a read under way nor a snapshot. Its number is then free for another file, under
 * the next generation, so that a location in the old file never equals one in the new.
 *
 * <p>Safe for use by several threads.
 */
final class SegmentFiles {
    /** As many as a location can tell apart. */
    static final int MAX_SEGMENTS = 256;

    private final Path folder;
    private final Segment[] byNumber = new Segment[MAX_SEGMENTS];
    private final int[] generations = new int[MAX_SEGMENTS];
    private long bytes;
    private long peakBytes;
    private long appendedBytes;
    private int peakCount;

    SegmentFiles(Path folder) {
        this.folder = folder;
    }

    /** Makes an open segment. */
    synchronized Segment create() throws IOException {
        for (int number = 0; number < MAX_SEGMENTS; number++) {
            if (byNumber[number] == null) {
                generations[number]++;
                byNumber[number] = new Segment(folder, number, generations[number]);
                peakCount = Math.max(peakCount, count());
                return byNumber[number];
            }
        }
        throw new IOException("all " + MAX_SEGMENTS + " segments are in use: compact, close"
                + " snapshots, or make segments larger");
    }

    /** Finds the segment of a location that a map holds, and keeps it until it is unpinned. */
    synchronized Segment pin(int number, int generation) {
        Segment segment = byNumber[number];
        if (segment == null || segment.generation != generation) {
            throw new IllegalStateException("segment " + number + ", generation " + generation
                    + ": found " + segment);
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
        return inUse().size();
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
            byNumber[segment.number] = null;
            segment.delete();
        }
    }

    private List<Segment> inUse() {
        return Arrays.stream(byNumber).filter(Objects::nonNull).toList();
    }

    private void deleteIfDone(Segment segment) throws IOException {
        if (segment.retired && segment.pins == 0 && byNumber[segment.number] == segment) {
            byNumber[segment.number] = null;
            bytes -= segment.bytes;
            segment.delete();
        }
    }
}
