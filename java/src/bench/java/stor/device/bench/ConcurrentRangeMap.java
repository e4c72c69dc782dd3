package stor.device.bench;

import java.util.Map;
import java.util.concurrent.ConcurrentSkipListMap;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/**
 * The rival without a lock: a {@link ConcurrentSkipListMap} of starts, whose values never change.
 *
 * <p>An insert is one entry, put where one of the same bounds was or where nothing was: to cut or
 * to join ranges takes several, and so a lock. A query goes on from its first range by starts, as
 * entries that know their neighbours would have to be changed together.
 */
final class ConcurrentRangeMap implements RangeMap {
    private final ConcurrentSkipListMap<Long, Place> places = new ConcurrentSkipListMap<>();

    /** How long a range is, and where it lies. */
    private record Place(int length, byte number, int fileOffset, int majorVer, int minorVer) {
        void visit(long start, Visitor visitor) {
            visitor.visit(start, length, Byte.toUnsignedInt(number), fileOffset, majorVer,
                    minorVer, null);
        }
    }

    @Override
    public void insert(long offset, int length, FileLocation at) {
        places.put(offset, new Place(
                length, (byte) at.number(), at.offset(), at.majorVer(), at.minorVer()));
    }

    @Override
    public void find(long offset, int length, Visitor visitor) {
        long end = offset + length;
        Map.Entry<Long, Place> entry = places.floorEntry(offset);
        if (entry == null || endOf(entry) <= offset) {
            entry = places.higherEntry(offset);
        }
        while (entry != null && entry.getKey() < end) {
            entry.getValue().visit(entry.getKey(), visitor);
            // Nothing begins in the range, so the next one is looked for behind it.
            entry = endOf(entry) < end ? places.ceilingEntry(endOf(entry)) : null;
        }
    }

    @Override
    public void forEach(Visitor visitor) {
        places.forEach((start, place) -> place.visit(start, visitor));
    }

    private static long endOf(Map.Entry<Long, Place> entry) {
        return entry.getKey() + entry.getValue().length;
    }
}
