package stor.device.bench;

import com.google.common.collect.Range;
import com.google.common.collect.TreeRangeMap;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.Visitor;

/**
 * The rival from a library: Guava's {@link TreeRangeMap}.
 *
 * <p>Guava cuts and joins ranges but hands on their values unchanged. So a value says where the
 * file's bytes begin relative to the device, which is the same for all pieces of a range, and for
 * two ranges just if they may be one.
 *
 * <p>What it cannot do so: ranges that are not in whole sectors, of which no single number says
 * where all pieces lie; lengths are not kept within 32 bits; the pieces of an empty range stay
 * empty and join again; a query lists what it finds cut to its own ends.
 */
final class GuavaRangeMap implements RangeMap {
    private static final Origin NOWHERE = new Origin((byte) 0, -1, -1, -1);

    private final TreeRangeMap<Long, Origin> ranges = TreeRangeMap.create();

    /** Where in a file the byte 0 of the device would lie. */
    private record Origin(byte number, long fileOffset, int majorVer, int minorVer) {
    }

    @Override
    public void insert(long offset, int length, FileLocation at) {
        ranges.putCoalescing(Range.closedOpen(offset, offset + length), originOf(offset, at));
    }

    @Override
    public void find(long offset, int length, Visitor visitor) {
        ranges.subRangeMap(Range.closedOpen(offset, offset + length)).asMapOfRanges()
                .forEach((range, origin) -> visit(range, origin, visitor));
    }

    @Override
    public void forEach(Visitor visitor) {
        ranges.asMapOfRanges().forEach((range, origin) -> visit(range, origin, visitor));
    }

    private static Origin originOf(long offset, FileLocation at) {
        return at.isEmpty() ? NOWHERE : new Origin((byte) at.number(),
                at.offset() - fileDistance(offset), at.majorVer(), at.minorVer());
    }

    private static void visit(Range<Long> range, Origin origin, Visitor visitor) {
        long start = range.lowerEndpoint();
        long fileOffset = origin == NOWHERE ? -1 : origin.fileOffset + fileDistance(start);
        visitor.visit(start, (int) (range.upperEndpoint() - start),
                Byte.toUnsignedInt(origin.number), (int) fileOffset, origin.majorVer,
                origin.minorVer, null);
    }

    private static long fileDistance(long distance) {
        return Workloads.fileDistance(distance, Workloads.SECTOR_SIZE);
    }
}
