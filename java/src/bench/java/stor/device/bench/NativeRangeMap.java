package stor.device.bench;

import stor.device.skiplist.FileLocation;
import stor.device.skiplist.JniSkipListNative;
import stor.device.skiplist.Visitor;

/** The native methods, called as a storage engine calls them that does its own locking. */
final class NativeRangeMap implements RangeMap {
    private final long handle =
            JniSkipListNative.createSkipList(Contender.HEIGHT, Workloads.SECTOR_SIZE);

    @Override
    public void insert(long offset, int length, FileLocation at) {
        JniSkipListNative.insert(handle, offset, length, at.offset(), at.majorVer(),
                at.minorVer(), (byte) at.number());
    }

    @Override
    public void find(long offset, int length, Visitor visitor) {
        walk(JniSkipListNative.getNodes(handle, offset, length), visitor);
    }

    @Override
    public void forEach(Visitor visitor) {
        walk(JniSkipListNative.getAllNodes(handle), visitor);
    }

    @Override
    public void close() {
        JniSkipListNative.destorySkipList(handle);
    }

    private static void walk(long[] run, Visitor visitor) {
        for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
            visitor.visit(JniSkipListNative.getNodeIndexOffset(node),
                    JniSkipListNative.getNodeIndexLen(node),
                    Byte.toUnsignedInt(JniSkipListNative.getNodeFileNumber(node)),
                    JniSkipListNative.getNodeFileOffset(node),
                    JniSkipListNative.getNodeFileMajorVer(node),
                    JniSkipListNative.getNodeFileMinorVer(node), null);
        }
    }
}
