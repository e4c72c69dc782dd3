package stor.device.replay;

import java.util.ArrayList;
import java.util.List;

/**
 * Says what a native map should hold: the same operations on a plain sorted list.
 *
 * <p>Lengths are 0 or more, and no range of empty location holds a buffer: such ranges fuse, and
 * the buffer of one piece cannot stand for the bytes of both.
 *
 * <p>Cost: each change moves the list behind it; a search is binary.
 */
public final class RangeModel {
    // Neither starts nor ends ever decrease along the list. Ranges of length 0 may share theirs
    // with a neighbour, which is why this is a list and not a map with the start as its key.
    private final List<Range> ranges = new ArrayList<>();
    private final int sectorSize;
    private long validLen;
    private long rawLen;
    private int rawCount;

    /**
     * Makes an empty model.
     *
     * @param sectorSize the logical bytes of a sector
     */
    public RangeModel(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    /**
     * Reads all ranges.
     *
     * @return a snapshot in order
     */
    public List<Range> ranges() {
        return List.copyOf(ranges);
    }

    /**
     * Finds the ranges that a query lists.
     *
     * @param offset the start of the query
     * @param length its length in bytes; with 0 the range that contains {@code offset} is listed
     * @return a snapshot in order
     */
    public List<Range> find(long offset, int length) {
        long end = offset + length;
        int from = firstEndingAfter(offset);
        int to = firstEndingAfter(end);
        if (to < ranges.size() && ranges.get(to).start() < end) {
            to++;
        }
        return List.copyOf(ranges.subList(from, to));
    }

    /**
     * Reads the number of ranges.
     *
     * @return the number of ranges
     */
    public int size() {
        return ranges.size();
    }

    /**
     * Reads the covered bytes, as a map counts them: without the gaps that an insert closed which
     * left a remainder on exactly one side.
     *
     * @return the covered bytes
     */
    public long validLen() {
        return validLen;
    }

    /**
     * Reads the bytes ever inserted.
     *
     * @return the bytes ever inserted
     */
    public long rawLen() {
        return rawLen;
    }

    /**
     * Reads the number of inserts.
     *
     * @return the number of inserts
     */
    public int rawCount() {
        return rawCount;
    }

    /**
     * Stores a range.
     *
     * @param added the range
     */
    public void insert(Range added) {
        if (added.length() < 0 || added.location().isEmpty() && added.isBuffered()) {
            throw new IllegalArgumentException("insert: range: " + added
                    + " (expected: length >= 0, no buffer at the empty location)");
        }
        replace(joinNeighbours(added));
        rawCount++;
        rawLen += added.length();
    }

    /**
     * Redirects the parts of a range that are still where they are expected.
     *
     * @param expected the range and where it is expected
     * @param replacement where its first byte is from now on
     * @return whether any part was redirected
     */
    public boolean compareAndSet(Range expected, Location replacement) {
        List<Range> pieces = new ArrayList<>();
        for (Range range : overlapped(expected)) {
            if (connected(range, expected)) {
                long from = Math.max(range.start(), expected.start());
                long to = Math.min(range.end(), expected.end());
                Location location = replacement.plus(from - expected.start(), sectorSize);
                pieces.add(new Range(from, (int) (to - from), location, Range.NO_BUFFER));
            }
        }
        pieces.forEach(this::insert);
        return !pieces.isEmpty();
    }

    /**
     * Gives back the buffers of the ranges that lie inside a range and are where they are expected.
     *
     * @param expected the range and where it is expected
     * @return the summed lengths of the ranges that held a buffer
     */
    public long compareAndRelease(Range expected) {
        long released = 0;
        int from = firstEndingAfter(expected.start());
        int to = firstStartingFrom(expected.end(), from);
        for (int i = from; i < to; i++) {
            Range range = ranges.get(i);
            if (range.isBuffered() && range.start() >= expected.start()
                    && range.end() <= expected.end() && continues(range, expected)) {
                ranges.set(i, range.withoutBuffer());
                released += range.length();
            }
        }
        return released;
    }

    /**
     * Gives back all buffers.
     *
     * @return the summed lengths of the ranges that held one
     */
    public long release() {
        long released =
                ranges.stream().filter(Range::isBuffered).mapToLong(Range::length).sum();
        ranges.replaceAll(Range::withoutBuffer);
        return released;
    }

    /**
     * Inserts all ranges into another model.
     *
     * @param destination the other model
     */
    public void copyTo(RangeModel destination) {
        ranges.forEach(destination::insert);
    }

    /** Fuses a range with the neighbours that it continues, as far as a length can say it. */
    private Range joinNeighbours(Range added) {
        int first = firstEndingAfter(added.start());
        int next = firstStartingFrom(added.end(), first);
        Range joined = added;
        if (first > 0) {
            Range left = ranges.get(first - 1);
            long length = (long) left.length() + added.length();
            // A neighbour of length 0 is not replaced: it keeps its location, as the new one does.
            if (left.length() > 0 && length <= Integer.MAX_VALUE && connected(added, left)) {
                joined = new Range(left.start(), (int) length, left.location(), left.writeId());
            }
        }
        if (next < ranges.size()) {
            Range right = ranges.get(next);
            long length = (long) joined.length() + right.length();
            if (length <= Integer.MAX_VALUE && connected(added, right)) {
                joined = new Range(
                        joined.start(), (int) length, joined.location(), joined.writeId());
            }
        }
        return joined;
    }

    /** Puts a range in the place of all that it overlaps. */
    private void replace(Range added) {
        int from = firstEndingAfter(added.start());
        List<Range> run = ranges.subList(from, firstStartingFrom(added.end(), from));
        List<Range> pieces = run.isEmpty() ? List.of(added) : cut(added, run);
        validLen += gained(added, run);
        run.clear();
        ranges.addAll(from, pieces);
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
    private List<Range> cut(Range added, List<Range> run) {
        Range first = run.get(0);
        Range last = run.get(run.size() - 1);
        boolean left = first.start() < added.start();
        boolean right = last.end() > added.end();
        // Only a range that sticks out on both sides is kept from growing too long on the left.
        boolean joinLeft = left && connected(added, first)
                && (!right || added.end() - first.start() <= Integer.MAX_VALUE);
        Range body = joinLeft ? first : added;
        boolean joinRight = right && connected(added, last)
                && mayReach(last.end() - body.start(), left);
        long bodyEnd = joinRight ? last.end() : added.end();

        List<Range> pieces = new ArrayList<>();
        if (left && !joinLeft) {
            pieces.add(first.slice(first.start(), added.start(), sectorSize));
        }
        pieces.add(new Range(
                body.start(), (int) (bodyEnd - body.start()), body.location(), body.writeId()));
        if (right && !joinRight) {
            pieces.add(last.slice(added.end(), last.end(), sectorSize));
        }
        return pieces;
    }

    /** Tells whether a joined range may have this length; without a left part one alone is not. */
    private static boolean mayReach(long length, boolean left) {
        return left ? length <= Integer.MAX_VALUE : (int) length != Integer.MAX_VALUE;
    }

    /** Gives by how much the covered bytes grow, as a map counts them. */
    private static long gained(Range added, List<Range> run) {
        if (run.isEmpty()) {
            return added.length();
        }
        Range first = run.get(0);
        Range last = run.get(run.size() - 1);
        boolean left = first.start() < added.start();
        boolean right = last.end() > added.end();
        if (left != right) {
            return left ? added.end() - last.end() : first.start() - added.start();
        }
        long covered = left ? last.end() - first.start() : added.length();
        return covered - run.stream().mapToLong(Range::length).sum();
    }

    private boolean connected(Range a, Range b) {
        if (a.location().isEmpty() || b.location().isEmpty()) {
            return a.location().isEmpty() && b.location().isEmpty() && meet(a, b);
        }
        return !a.location().memory() && !b.location().memory() && continues(a, b);
    }

    /** Tells whether two ranges lie in one continuous stretch of the same file. */
    private boolean continues(Range a, Range b) {
        int fileDistance = a.location().offset() - b.location().offset();
        return a.location().sameFile(b.location()) && meet(a, b)
                && Location.fileDistance(a.start() - b.start(), sectorSize) == fileDistance;
    }

    private static boolean meet(Range a, Range b) {
        return a.start() <= b.end() && b.start() <= a.end();
    }

    private List<Range> overlapped(Range range) {
        int from = firstEndingAfter(range.start());
        return List.copyOf(ranges.subList(from, firstStartingFrom(range.end(), from)));
    }

    private int firstEndingAfter(long position) {
        int low = 0;
        int high = ranges.size();
        while (low < high) {
            int middle = (low + high) >>> 1;
            if (ranges.get(middle).end() > position) {
                high = middle;
            } else {
                low = middle + 1;
            }
        }
        return low;
    }

    private int firstStartingFrom(long position, int from) {
        int index = from;
        while (index < ranges.size() && ranges.get(index).start() < position) {
            index++;
        }
        return index;
    }
}
