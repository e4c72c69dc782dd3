package stor.device.skiplist;

/**
 * Keeps a map from joining ranges to one that is longer than an {@code int} can say. The native
 * side checks that when a new range touches its neighbours and when it lies inside stored ones, but
 * not when it covers one end of a stored range and continues it.
 *
 * <p>No look at the map is needed while all that was ever inserted lies within 2^31-1 bytes. Nor is
 * it while the map is plain: every insert so far had an offset and a length of whole sectors, and
 * every location of file type was empty, or had a version and lay within {@code [0, 2^31)} of its
 * file with all its bytes. Proof: with boundaries on whole sectors, file distances add up exactly,
 * so no cut and no join moves a byte in its file. Along a joined range the place in the file grows
 * by at least 1 a byte, from 0 or more to less than 2^31. That leaves the empty ranges, which join
 * wherever they meet: an insert of an empty one always looks. Pieces cut from them have no version
 * and join only with each other, inside the range they come from.
 *
 * <p>A look costs two searches. The caller of each method is alone in the map.
 */
final class FusionGuard {
    private static final long LONGEST = Integer.MAX_VALUE;

    private final int sectorSize;
    // All inserts so far lie within [lowest, highest).
    private long lowest = Long.MAX_VALUE;
    private long highest = Long.MIN_VALUE;
    private boolean plain = true;
    private boolean hasEmpty;

    FusionGuard(int sectorSize) {
        this.sectorSize = sectorSize;
    }

    /** Notes an insert with a buffer, which is joined to nothing but may cut anything. */
    void noteCut(long offset, int len) {
        lowest = Math.min(lowest, offset);
        highest = Math.max(highest, offset + len);
        if (plain && !isAligned(offset, len, sectorSize)) {
            plain = false;
        }
    }

    /** Notes ranges of file type to come; tells whether each needs {@link #check}. */
    boolean noteInserts(long offset, int len, FileLocation location) {
        noteCut(offset, len);
        boolean empty = location.isEmpty();
        if (empty) {
            hasEmpty = true;
        } else if (plain && (location.isUnversioned() || !isWithinFile(len, location))) {
            plain = false;
        }
        return (empty || !plain) && isWide();
    }

    /** Notes a copy to come of all that another map holds; tells whether its ranges need checks. */
    boolean noteCopy(FusionGuard source) {
        boolean bothEmpty = hasEmpty && source.hasEmpty;
        lowest = Math.min(lowest, source.lowest);
        highest = Math.max(highest, source.highest);
        plain &= source.plain;
        hasEmpty |= source.hasEmpty;
        return (bothEmpty || !plain) && isWide();
    }

    /** Refuses a range of file type, about to be inserted, that would make one too long. */
    void check(String operation, long handle, long offset, int len, FileLocation location) {
        long end = offset + len;
        long leftNode = MapSearch.firstEndingAfter(handle, offset - 1);
        long rightNode = MapSearch.firstEndingAfter(handle, end);
        long start = Math.min(offset, NodeReader.offset(leftNode));
        long rightEnd =
                NodeReader.offset(rightNode) <= end ? NodeReader.end(rightNode) : end;
        if (rightEnd - start > LONGEST) {
            checkClosely(operation, handle, new MappedRange(offset, len, false, location));
        }
    }

    /** As above, for a range in the neighbourhood of a very long one: follows the native rules. */
    private void checkClosely(String operation, long handle, MappedRange added) {
        MappedRange left = endingAfter(handle, added.offset() - 1);
        MappedRange first = endingAfter(handle, added.offset());
        MappedRange right = endingAfter(handle, added.end());
        boolean sticksOutLeft = first.offset() < added.offset();
        boolean sticksOutRight = right.offset() < added.end();
        long length = 0;
        if (sticksOutRight && !sticksOutLeft) {
            MappedRange joined = left.end() == added.offset() && mayJoin(added, left)
                    ? new MappedRange(left.offset(), left.len() + added.len(), false,
                            left.location())
                    : added;
            length = isConnected(joined, right) ? right.end() - joined.offset() : 0;
        } else if (sticksOutLeft && !sticksOutRight) {
            MappedRange joined = right.offset() == added.end() && mayJoin(added, right)
                    ? new MappedRange(added.offset(), added.len() + right.len(), false,
                            added.location())
                    : added;
            length = isConnected(joined, first) ? joined.end() - first.offset() : 0;
        }
        if (length > LONGEST) {
            throw Arguments.illegal(operation, "offset: " + added.offset() + ", len: "
                    + added.len() + ": continues stored ranges to " + length + " bytes",
                    "<= " + LONGEST);
        }
    }

    /** Tells whether there is room for a range that is too long; false if there is none at all. */
    private boolean isWide() {
        return lowest < highest && Long.compareUnsigned(highest - lowest, LONGEST) > 0;
    }

    private static boolean isLength(long length) {
        return length <= LONGEST;
    }

    private boolean mayJoin(MappedRange added, MappedRange neighbour) {
        return isConnected(added, neighbour) && isLength((long) added.len() + neighbour.len());
    }

    /** Tells whether two ranges of a map may become one. */
    boolean isConnected(MappedRange a, MappedRange b) {
        if (a.location().isEmpty() || b.location().isEmpty()) {
            return a.location().isEmpty() && b.location().isEmpty() && meet(a, b);
        }
        int fileDistance = a.location().offset() - b.location().offset();
        return !a.memoryType() && !b.memoryType() && meet(a, b)
                && a.location().number() == b.location().number()
                && a.location().majorVer() == b.location().majorVer()
                && a.location().minorVer() == b.location().minorVer()
                && FileLocation.fileDistance(a.offset() - b.offset(), sectorSize) == fileDistance;
    }

    private static boolean meet(MappedRange a, MappedRange b) {
        return a.offset() <= b.end() && b.offset() <= a.end();
    }

    /** Tells whether a range is made of whole sectors. */
    static boolean isAligned(long offset, long len, int sectorSize) {
        boolean powerOfTwo = (sectorSize & sectorSize - 1) == 0;
        return powerOfTwo
                ? ((offset | len) & sectorSize - 1) == 0
                : offset % sectorSize == 0 && len % sectorSize == 0;
    }

    private boolean isWithinFile(int len, FileLocation location) {
        return location.offset() >= 0
                && isLength(location.offset() + FileLocation.fileDistance(len, sectorSize));
    }

    private static MappedRange endingAfter(long handle, long position) {
        return NodeReader.range(MapSearch.firstEndingAfter(handle, position));
    }
}
