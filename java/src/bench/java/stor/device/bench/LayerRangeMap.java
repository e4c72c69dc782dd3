package stor.device.bench;

import java.util.Optional;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.skiplist.Visitor;

/** The safe layer, with a place object made for each insert. */
final class LayerRangeMap implements RangeMap {
    private final OffHeapRangeMap map =
            OffHeapRangeMap.create(Contender.HEIGHT, Workloads.SECTOR_SIZE);

    @Override
    public void insert(long offset, int length, FileLocation at) {
        map.insert(offset, length, new FileLocation(
                at.number(), at.offset(), at.majorVer(), at.minorVer()));
    }

    @Override
    public void find(long offset, int length, Visitor visitor) {
        map.forEach(offset, length, visitor);
    }

    @Override
    public void floor(long position, Visitor visitor) {
        visit(map.floor(position), visitor);
    }

    @Override
    public void last(Visitor visitor) {
        visit(map.last(), visitor);
    }

    @Override
    public void forEach(Visitor visitor) {
        map.forEach(visitor);
    }

    @Override
    public void close() {
        map.close();
    }

    private static void visit(Optional<MappedRange> found, Visitor visitor) {
        if (found.isPresent()) {
            MappedRange range = found.get();
            FileLocation at = range.location();
            visitor.visit(range.offset(), range.len(), at.number(), at.offset(), at.majorVer(),
                    at.minorVer(), null);
        }
    }
}
