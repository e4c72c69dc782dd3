package stor.device.bench;

import stor.device.skiplist.Visited;
import stor.device.skiplist.Visitor;

/**
 * Reads all that it visits. All maps are timed with this one class: a second one would make the
 * calls of a visitor slower.
 */
final class Reader implements Visitor {
    // Depends on all that is read, so that nothing of it can be left out.
    private long checksum;

    @Override
    public void visit(long offset, int length, int number, int fileOffset, int majorVer,
            int minorVer, Visited range) {
        checksum += offset + length + number + fileOffset + majorVer + minorVer;
    }

    long checksum() {
        return checksum;
    }
}
