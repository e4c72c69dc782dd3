package stor.device.store;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.ArrayList;
import java.util.LinkedHashSet;
import java.util.List;
import java.util.Locale;
import java.util.Map;
import java.util.OptionalLong;
import java.util.Set;
import java.util.TreeMap;
import java.util.stream.Stream;
import stor.device.skiplist.FileLocation;

/**
 * The segment files of a store: counts them, keeps a bounded number of them open, and deletes a file
 * when nobody needs it.
 *
 * <p>A segment is <em>open</em> while a writer appends to it, then <em>sealed</em>. A sealed
 * segment in which nothing is live is <em>retired</em>, and deleted when nobody has it pinned any
 * more: neither a read under way nor a snapshot. A location names a segment by the low 8 bits of its
 * count and, as its major version, the rest. No count is used twice, so there may be as many as the
 * disk holds, and a location in an old file never equals one in a new.
 *
 * <p>Safe for use by several threads. No file is touched under the lock.
 */
final class SegmentFiles implements Closeable {
    /** As many as the number in a location can tell apart. */
    private static final int NUMBERS = 256;
    private static final int MOST_OPEN = 128;
    private static final String PREFIX = "segment-";

    private final Disk disk;
    private final Map<Long, Segment> byId = new TreeMap<>();
    private final List<Segment> garbage = new ArrayList<>();
    /** The sealed ones that may be open, the one that was used last at the end. */
    private final Set<Segment> opened = new LinkedHashSet<>();
    private long next;
    private long bytes;
    private long peakBytes;
    private long appendedBytes;
    private int peakCount;
    private int deletions;
    private boolean closed;

    /** Makes an empty set; the first segment created has the given count. */
    SegmentFiles(Disk disk, long next) {
        this.disk = disk;
        this.next = next;
    }

    static long id(FileLocation place) {
        return id(place.number(), place.majorVer());
    }

    /** Gives the count of the segment that a location names. */
    static long id(int number, int majorVer) {
        return (long) majorVer * NUMBERS + number;
    }

    static FileLocation place(long id, int position) {
        return new FileLocation((int) (id % NUMBERS), position, (int) (id / NUMBERS), 0);
    }

    static String name(long id) {
        return PREFIX + String.format(Locale.ROOT, "%06d", id);
    }

    /** Gives the count of the segment with that file name, or nothing if it is no segment's. */
    static OptionalLong parse(String name) {
        if (!name.matches(PREFIX + "\\d{6,12}")) {
            return OptionalLong.empty();
        }
        long id = Long.parseLong(name.substring(PREFIX.length()));
        return name(id).equals(name) ? OptionalLong.of(id) : OptionalLong.empty();
    }

    // --- Writing ---------------------------------------------------------------------------------

    /** Makes an open segment. */
    Segment create() throws IOException {
        Segment segment = new Segment(disk, takeNext());
        try {
            segment.create();
        } catch (IOException e) {
            addGarbage(segment);
            throw e;
        }
        add(segment);
        return segment;
    }

    private synchronized long takeNext() {
        return next++;
    }

    private synchronized void add(Segment segment) {
        byId.put(segment.id, segment);
        bytes += segment.bytes;
        peakBytes = Math.max(peakBytes, bytes);
        peakCount = Math.max(peakCount, byId.size());
    }

    /** Takes a segment that another process has left, with the length of its file. */
    synchronized void takeOver(long id, long length) {
        Segment segment = new Segment(disk, id);
        segment.sealed = true;
        segment.bytes = length;
        add(segment);
    }

    /** Counts bytes at the end of a segment. */
    synchronized void noteAppended(Segment segment, int length) {
        segment.bytes += length;
        bytes += length;
        appendedBytes += length;
        peakBytes = Math.max(peakBytes, bytes);
    }

    /** Counts bytes that have been taken back from the end of a segment. */
    synchronized void noteTruncated(Segment segment, int length) {
        bytes -= segment.bytes - length;
        segment.bytes = length;
    }

    // --- Reading ---------------------------------------------------------------------------------

    /** Finds the segment of a location that a map holds, and keeps it until it is unpinned. */
    synchronized Segment pin(long id) {
        if (closed) {
            throw new IllegalStateException(name(id) + ": the store is closed (expected: open)");
        }
        Segment segment = byId.get(id);
        if (segment == null) {
            throw new IllegalStateException(name(id) + ": is no segment");
        }
        segment.pins++;
        return segment;
    }

    /** Keeps all segments that are not retired until they are unpinned. */
    synchronized List<Segment> pinAll() {
        List<Segment> pinned =
                byId.values().stream().filter(segment -> !segment.retired).toList();
        pinned.forEach(segment -> segment.pins++);
        return pinned;
    }

    void unpin(Segment segment) {
        if (release(segment)) {
            try {
                deleteGarbage();
            } catch (IOException e) {
                // The file remains garbage, and the next compaction tells why.
            }
        }
    }

    /** Tells whether that was the last that kept the file. */
    private synchronized boolean release(Segment segment) {
        segment.pins--;
        notifyAll();
        return dropIfDone(segment);
    }

    /** Reads frames of a pinned segment. */
    void read(Segment segment, ByteBuffer frames, int position) throws IOException {
        try {
            segment.read(frames, position);
        } finally {
            noteUsed(segment);
        }
    }

    /** Closes the file of the sealed segment that was not used for longest, if too many are open. */
    private void noteUsed(Segment segment) {
        try {
            Segment longest = takeLongestUnused(segment);
            if (longest != null) {
                longest.rest();
            }
        } catch (IOException e) {
            // Nothing is lost: what was committed was forced, and a read opens the file anew.
        }
    }

    private synchronized Segment takeLongestUnused(Segment used) {
        if (!used.sealed) {
            return null;
        }
        opened.remove(used);
        opened.add(used);
        if (opened.size() <= MOST_OPEN) {
            return null;
        }
        Segment longest = opened.iterator().next();
        opened.remove(longest);
        return longest;
    }

    // --- Going -----------------------------------------------------------------------------------

    /** Says that nothing will be added. */
    void seal(Segment segment) {
        synchronized (this) {
            segment.sealed = true;
        }
        noteUsed(segment);
    }

    /** Lists the segments that compaction may empty or retire. */
    synchronized List<Segment> sealed() {
        return byId.values().stream()
                .filter(segment -> segment.sealed && !segment.retired).toList();
    }

    /** Lets a segment go in which nothing is live; {@link #deleteGarbage} deletes the file. */
    synchronized void retire(Segment segment) {
        segment.retired = true;
        dropIfDone(segment);
    }

    private boolean dropIfDone(Segment segment) {
        boolean done =
                segment.retired && segment.pins == 0 && byId.remove(segment.id) != null;
        if (done) {
            bytes -= segment.bytes;
            opened.remove(segment);
            garbage.add(segment);
        }
        return done;
    }

    private synchronized void addGarbage(Segment segment) {
        garbage.add(segment);
    }

    /** Deletes the files of segments that went; those that cannot be deleted are tried again. */
    void deleteGarbage() throws IOException {
        try {
            Thoroughly.forEach(takeGarbage(), segment -> {
                try {
                    segment.delete();
                } catch (IOException e) {
                    addGarbage(segment);
                    throw e;
                }
            });
        } finally {
            endDeletion();
        }
    }

    private synchronized List<Segment> takeGarbage() {
        deletions++;
        List<Segment> taken = new ArrayList<>();
        if (!closed) {
            taken.addAll(garbage);
            garbage.clear();
        }
        return taken;
    }

    private synchronized void endDeletion() {
        deletions--;
        notifyAll();
    }

    /**
     * Lets nothing begin any more, waits for reads and deletions under way, and closes all files.
     * Garbage that is left is deleted when the store is opened again.
     */
    @Override
    public void close() throws IOException {
        Thoroughly.forEach(endUse(), Segment::rest);
    }

    private synchronized List<Segment> endUse() {
        closed = true;
        boolean interrupted = false;
        while (deletions > 0 || byId.values().stream().anyMatch(segment -> segment.pins > 0)) {
            try {
                wait();
            } catch (InterruptedException e) {
                interrupted = true;
            }
        }
        if (interrupted) {
            Thread.currentThread().interrupt();
        }
        return Stream.concat(byId.values().stream(), garbage.stream()).toList();
    }

    // --- Figures ---------------------------------------------------------------------------------

    synchronized long next() {
        return next;
    }

    synchronized int count() {
        return byId.size();
    }

    synchronized int peakCount() {
        return peakCount;
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
}
