package stor.device.skiplist;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.function.Predicate;

/**
 * Says what a map should hold, for {@link Verification}: the same operations on a
 * plain sorted list.
 *
 * <p>Lengths are 0 or more, and no range of empty location holds a buffer: such ranges are joined,
 * and the buffer of one piece cannot stand for the bytes of both.
 *
 * <p>Cost: each change moves the list behind it; a search is binary.
 */
final class RangeModel {
    static final long NO_BUFFER = 0;

    private static final long LONGEST = Integer.MAX_VALUE;

    // Neither starts nor ends ever decrease along the list. Ranges of length 0 may share theirs
    // with a neighbour, which is why this is a list and not a map with the start as its key.
    private final List<Held> held = new ArrayList<>();
    private final int sectorSize;
    private long coveredBytes;
    private long insertedBytes;
    private int insertCount;

    /**
     * A range and its buffer.
     *
     * @param write the write whose bytes the range's buffer has, or {@link #NO_BUFFER}
     */
    record Held(MappedRange range, long write) {
        long offset() {
            return range.offset();
        }

        int len() {
            return range.len();
        }

        long end() {
            return range.end();
        }

        boolean isBuffered() {
            return write != NO_BUFFER;
        }
    }

    RangeModel(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    /** Gives all ranges in order, as a view. */
    List<Held> all() {
        return Collections.unmodifiableList(held);
    }

    /** Gives what a query lists; with a length of 0 that is the range that contains the offset. */
    List<Held> find(long offset, int len) {
        long end = offset + len;
        int from = firstEndingAfter(offset);
        int to = firstEndingAfter(end);
        if (to < held.size() && held.get(to).offset() < end) {
            to++;
        }
        return List.copyOf(held.subList(from, to));
    }

    /** Counts the covered bytes as a map does; {@link OffHeapRangeMap#coveredBytes} says how. */
    long coveredBytes() {
        return coveredBytes;
    }

    long insertedBytes() {
        return insertedBytes;
    }

    int insertCount() {
        return insertCount;
    }

    /**
     * Stores a range.
     *
     * @throws IllegalArgumentException if it would continue one that it covers one end of, to a
     *     length that no range can have; nothing has changed
     */
    void insert(MappedRange range, long write) {
        replace(joinNeighbours(new Held(range, write)));
        insertCount++;
        insertedBytes += range.len();
    }

    /** Redirects the parts of a range that are still where it is; tells whether there are any. */
    boolean compareAndSet(MappedRange expected, FileLocation replacement) {
        List<MappedRange> parts = new ArrayList<>();
        for (Held there : overlapped(expected.offset(), expected.end())) {
            if (connected(there.range(), expected)) {
                long from = Math.max(there.offset(), expected.offset());
                long to = Math.min(there.end(), expected.end());
                parts.add(new MappedRange(from, (int) (to - from), false,
                        replacement.plus(from - expected.offset(), sectorSize)));
            }
        }
        parts.forEach(part -> insert(part, NO_BUFFER));
        return !parts.isEmpty();
    }

    /** Takes the buffers of the ranges that lie inside a range and are where it is. */
    long compareAndRelease(MappedRange expected) {
        // A range of length 0 at either end is not inside.
        return release(there -> there.offset() >= expected.offset()
                && there.end() <= expected.end() && there.offset() < expected.end()
                && there.end() > expected.offset() && continues(there.range(), expected));
    }

    long release() {
        return release(there -> true);
    }

    /** Takes the buffers of the ranges that lie inside a range. */
    long releaseInside(MappedRange range) {
        return release(there -> there.offset() >= range.offset() && there.end() <= range.end());
    }

    /** Gives the pieces of stored ranges that lie in a range. */
    List<MappedRange> stored(MappedRange range) {
        List<MappedRange> pieces = new ArrayList<>();
        for (Held there : overlapped(range.offset(), range.end())) {
            long from = Math.max(there.offset(), range.offset());
            long to = Math.min(there.end(), range.end());
            if (!there.range().isHole()) {
                pieces.add(new MappedRange(from, (int) (to - from), there.range().memoryType(),
                        there.range().location().plus(from - there.offset(), sectorSize)));
            }
        }
        return pieces;
    }

    /**
     * Makes one hole of what is stored in a range, together with all holes up to the stored ranges
     * on both sides, as far as a length goes.
     */
    long remove(MappedRange range) {
        List<MappedRange> pieces = stored(range);
        if (pieces.isEmpty()) {
            return 0;
        }
        long from = pieces.get(0).offset();
        long to = pieces.get(pieces.size() - 1).end();
        // What sticks out keeps the hole from the others.
        int after = firstStartingFrom(to, 0);
        if (held.get(after - 1).end() == to) {
            while (after < held.size() && held.get(after).range().isHole()
                    && held.get(after).end() - from <= LONGEST) {
                to = held.get(after++).end();
            }
        }
        int first = firstEndingAfter(from);
        if (held.get(first).offset() == from) {
            while (--first >= 0 && held.get(first).range().isHole()
                    && to - held.get(first).offset() <= LONGEST) {
                from = held.get(first).offset();
            }
        }
        insert(new MappedRange(from, (int) (to - from), false, FileLocation.EMPTY), NO_BUFFER);
        return pieces.stream().mapToLong(MappedRange::len).sum();
    }

    /** Forgets all. */
    void clear() {
        held.clear();
        coveredBytes = 0;
        insertedBytes = 0;
        insertCount = 0;
    }

    void copyTo(RangeModel destination) {
        held.forEach(there -> destination.insert(there.range(), there.write()));
    }

    private long release(Predicate<Held> which) {
        long released = 0;
        for (int i = 0; i < held.size(); i++) {
            Held there = held.get(i);
            if (there.isBuffered() && which.test(there)) {
                held.set(i, new Held(there.range(), NO_BUFFER));
                released += there.len();
            }
        }
        return released;
    }

    /** Joins a range with the neighbours that it touches and continues, as far as a length goes. */
    private Held joinNeighbours(Held added) {
        int first = firstEndingAfter(added.offset());
        int next = firstStartingFrom(added.end(), first);
        Held joined = added;
        // A neighbour of length 0 is not replaced: it keeps its location, as the new one does.
        if (first > 0 && held.get(first - 1).len() > 0) {
            joined = joinTouching(joined, added, held.get(first - 1), held.get(first - 1));
        }
        if (next < held.size()) {
            joined = joinTouching(joined, added, held.get(next), joined);
        }
        return joined;
    }

    private Held joinTouching(Held joined, Held added, Held neighbour, Held left) {
        long len = (long) joined.len() + neighbour.len();
        return len <= LONGEST && connected(added.range(), neighbour.range())
                ? stretched(left, left.offset() + len)
                : joined;
    }

    /** Puts a range in the place of all that it overlaps. */
    private void replace(Held added) {
        List<Held> run = overlapped(added.offset(), added.end());
        List<Held> pieces = run.isEmpty() ? List.of(added) : cut(added, run);
        coveredBytes += gained(added, run);
        run.clear();
        run.addAll(pieces);
    }

    /**
     * Gives what takes the place of a run of ranges that a new one overlaps:
     *
     * <pre>
     *   run      [ first )  ...  [ last )
     *   added          [  added  )
     *   pieces   [ left)[  added  )[right)    either remainder may be joined to added instead
     * </pre>
     */
    private List<Held> cut(Held added, List<Held> run) {
        Held first = run.get(0);
        Held last = run.get(run.size() - 1);
        boolean left = first.offset() < added.offset();
        boolean right = last.end() > added.end();
        // Only a range that sticks out on both sides is kept from growing too long on the left.
        boolean joinLeft = left && connected(added.range(), first.range())
                && (!right || added.end() - first.offset() <= LONGEST);
        Held body = joinLeft ? first : added;
        // Without a left part, one length alone is not reached.
        long whole = last.end() - body.offset();
        boolean joinRight = right && connected(added.range(), last.range())
                && (left ? whole <= LONGEST : whole != LONGEST);
        long end = joinRight ? last.end() : added.end();
        if (end - body.offset() > LONGEST) {
            throw new IllegalArgumentException("too long: " + (end - body.offset()));
        }
        List<Held> pieces = new ArrayList<>();
        if (left && !joinLeft) {
            pieces.add(stretched(first, added.offset()));
        }
        pieces.add(stretched(body, end));
        if (right && !joinRight) {
            pieces.add(new Held(new MappedRange(added.end(), (int) (last.end() - added.end()),
                    last.range().memoryType(), last.range().location()
                            .plus(added.end() - last.offset(), sectorSize)), last.write()));
        }
        return pieces;
    }

    private static Held stretched(Held there, long end) {
        MappedRange range = there.range();
        return new Held(new MappedRange(range.offset(), (int) (end - range.offset()),
                range.memoryType(), range.location()), there.write());
    }

    /** Gives by how much the covered bytes grow, as a map counts them. */
    private static long gained(Held added, List<Held> run) {
        if (run.isEmpty()) {
            return added.len();
        }
        Held first = run.get(0);
        Held last = run.get(run.size() - 1);
        boolean left = first.offset() < added.offset();
        boolean right = last.end() > added.end();
        if (left != right) {
            return left ? added.end() - last.end() : first.offset() - added.offset();
        }
        long covered = left ? last.end() - first.offset() : added.len();
        return covered - run.stream().mapToLong(Held::len).sum();
    }

    private boolean connected(MappedRange a, MappedRange b) {
        if (a.location().isEmpty() || b.location().isEmpty()) {
            return a.location().isEmpty() && b.location().isEmpty() && meet(a, b);
        }
        return !a.memoryType() && !b.memoryType() && continues(a, b);
    }

    /** Tells whether two ranges lie in one continuous stretch of the same file. */
    private boolean continues(MappedRange a, MappedRange b) {
        FileLocation at = a.location();
        FileLocation other = b.location();
        return meet(a, b) && at.number() == other.number() && at.majorVer() == other.majorVer()
                && at.minorVer() == other.minorVer()
                && FileLocation.fileDistance(a.offset() - b.offset(), sectorSize)
                        == at.offset() - other.offset();
    }

    private static boolean meet(MappedRange a, MappedRange b) {
        return a.offset() <= b.end() && b.offset() <= a.end();
    }

    /** Gives the ranges that reach into a stretch, as a view. */
    private List<Held> overlapped(long offset, long end) {
        int from = firstEndingAfter(offset);
        return held.subList(from, firstStartingFrom(end, from));
    }

    private int firstEndingAfter(long position) {
        int low = 0;
        int high = held.size();
        while (low < high) {
            int middle = (low + high) >>> 1;
            if (held.get(middle).end() > position) {
                high = middle;
            } else {
                low = middle + 1;
            }
        }
        return low;
    }

    private int firstStartingFrom(long position, int from) {
        int index = from;
        while (index < held.size() && held.get(index).offset() < position) {
            index++;
        }
        return index;
    }
}
