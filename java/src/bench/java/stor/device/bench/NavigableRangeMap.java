package stor.device.bench;

import java.util.Map;
import java.util.NavigableMap;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/**
 * The rival written by hand: the same map over any {@link NavigableMap}, whose keys are the starts.
 *
 * <p>Entries are edited in place wherever their start stays, and made only to be stored. Each knows
 * its neighbours, so that a query costs one descent, and an insert that meets nothing two. Not safe
 * for use by several threads, whatever the map below is: an insert changes several entries.
 */
final class NavigableRangeMap implements RangeMap {
    private final NavigableMap<Long, Entry> entries;
    // Before and behind all entries, so that each has neighbours; they touch nothing.
    private final Entry head = new Entry(Long.MIN_VALUE);
    private final Entry tail = new Entry(Long.MAX_VALUE);
    private Entry spare = new Entry(0);

    static final class Entry {
        private long start;
        private int length;
        private byte number;
        private int fileOffset;
        private int majorVer;
        private int minorVer;
        private Entry before;
        private Entry next;

        Entry(long start) {
            this.start = start;
        }

        long end() {
            return start + length;
        }

        boolean isEmpty() {
            return fileOffset == -1 && majorVer == -1 && minorVer == -1;
        }

        void set(long offset, int bytes, FileLocation at) {
            start = offset;
            length = bytes;
            number = (byte) at.number();
            fileOffset = at.offset();
            majorVer = at.majorVer();
            minorVer = at.minorVer();
        }

        void setPlace(Entry other) {
            number = other.number;
            fileOffset = other.fileOffset;
            majorVer = other.majorVer;
            minorVer = other.minorVer;
        }

        void setEnd(long end) {
            length = (int) (end - start);
        }

        void visit(Visitor visitor) {
            visitor.visit(start, length, Byte.toUnsignedInt(number), fileOffset, majorVer,
                    minorVer, null);
        }

        /** Cuts off what lies before a position, which becomes the start. */
        void advanceTo(long position) {
            long skip = position - start;
            start = position;
            length -= (int) skip;
            fileOffset += (int) Workloads.fileDistance(skip, Workloads.SECTOR_SIZE);
        }

        /** Tells whether this and another entry, which touch or overlap, may be one. */
        boolean continues(Entry other) {
            if (isEmpty() || other.isEmpty()) {
                return isEmpty() && other.isEmpty();
            }
            return number == other.number && majorVer == other.majorVer
                    && minorVer == other.minorVer
                    && Workloads.fileDistance(start - other.start, Workloads.SECTOR_SIZE)
                            == (long) fileOffset - other.fileOffset;
        }
    }

    NavigableRangeMap(NavigableMap<Long, Entry> entries) {
        this.entries = entries;
        link(head, tail);
    }

    @Override
    public void insert(long offset, int length, FileLocation at) {
        Entry added = spare;
        added.set(offset, length, at);
        Entry before = entryOf(entries.lowerEntry(offset));
        if (before.end() > added.end()) {
            if (!added.continues(before)) {
                split(before, added);
            }
            return;
        }
        Entry place = claimStart(before, added);
        Entry left = place == null ? before : place;
        while (left.next.end() <= added.end()) {
            drop(left.next);
        }
        if (!claimEnd(left.next, added, place)) {
            store(left, added);
        }
    }

    @Override
    public void find(long offset, int length, Visitor visitor) {
        Entry floor = entryOf(entries.floorEntry(offset));
        visit(floor.end() > offset ? floor : floor.next, offset + length, visitor);
    }

    @Override
    public void floor(long position, Visitor visitor) {
        visit(entries.floorEntry(position), visitor);
    }

    @Override
    public void last(Visitor visitor) {
        visit(entries.lastEntry(), visitor);
    }

    @Override
    public void forEach(Visitor visitor) {
        visit(head.next, Long.MAX_VALUE, visitor);
    }

    private static void visit(Entry first, long end, Visitor visitor) {
        for (Entry entry = first; entry.start < end; entry = entry.next) {
            entry.visit(visitor);
        }
    }

    private static void visit(Map.Entry<Long, Entry> found, Visitor visitor) {
        if (found != null) {
            found.getValue().visit(visitor);
        }
    }

    /** Gives the entry that now stands for all of the range up to its end, or null for none. */
    private static Entry claimStart(Entry before, Entry added) {
        if (before.end() >= added.start && fitsLength(added.end() - before.start)
                && added.continues(before)) {
            before.setEnd(added.end());
            return before;
        }
        if (before.end() > added.start) {
            before.setEnd(added.start);
        }
        Entry next = before.next;
        // One that ends behind the range is left to claimEnd.
        if (next.start != added.start || next.end() > added.end()) {
            return null;
        }
        next.setPlace(added);
        next.setEnd(added.end());
        return next;
    }

    /** Joins or cuts the entry behind the range. Tells whether an entry now stands for it. */
    private boolean claimEnd(Entry next, Entry added, Entry place) {
        long end = added.end();
        if (next.start > end) {
            return place != null;
        }
        long start = place == null ? added.start : place.start;
        if (fitsLength(next.end() - start) && added.continues(next)) {
            join(next, start, added, place);
            return true;
        }
        if (next.start == added.start && place == null) {
            // Its key is that of the range, so the rest gets the new one.
            Entry rest = remainder(next, end);
            next.setPlace(added);
            next.setEnd(end);
            store(next, rest);
            return true;
        }
        if (next.start < end) {
            entries.remove(next.start);
            next.advanceTo(end);
            entries.put(end, next);
        }
        return place != null;
    }

    private void join(Entry next, long start, Entry added, Entry place) {
        long end = next.end();
        if (place != null) {
            drop(next);
            place.setEnd(end);
        } else if (next.start != start) {
            entries.remove(next.start);
            next.start = start;
            next.setPlace(added);
            next.setEnd(end);
            entries.put(start, next);
        }
    }

    private void split(Entry around, Entry added) {
        Entry rest = remainder(around, added.end());
        around.setEnd(added.start);
        store(around, added);
        store(added, rest);
    }

    private static Entry remainder(Entry entry, long from) {
        Entry rest = new Entry(entry.start);
        rest.length = entry.length;
        rest.setPlace(entry);
        rest.advanceTo(from);
        return rest;
    }

    private void store(Entry left, Entry entry) {
        entries.put(entry.start, entry);
        link(entry, left.next);
        link(left, entry);
        if (entry == spare) {
            spare = new Entry(0);
        }
    }

    private void drop(Entry entry) {
        entries.remove(entry.start);
        link(entry.before, entry.next);
    }

    private Entry entryOf(Map.Entry<Long, Entry> found) {
        return found == null ? head : found.getValue();
    }

    private static void link(Entry left, Entry right) {
        left.next = right;
        right.before = left;
    }

    private static boolean fitsLength(long length) {
        return length <= Integer.MAX_VALUE;
    }
}
