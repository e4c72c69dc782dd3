package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import io.netty.util.IllegalReferenceCountException;

/**
 * Reads the nodes of a map once they are found, in place where that is possible, otherwise by the
 * native methods.
 *
 * <p>A node is an address that ends with the next change of its map. So the caller is inside the
 * map's guard, and no code of a stranger that might change the map runs between finding a node and
 * reading it.
 */
final class NodeReader {
    private NodeReader() {
    }

    /** Gives the first byte; {@link Long#MAX_VALUE} for the end mark. */
    static long offset(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.offset(node)
                : JniSkipListNative.getNodeIndexOffset(node);
    }

    /** Gives the length; 0 for the end mark, and for that only. */
    static int len(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.len(node)
                : JniSkipListNative.getNodeIndexLen(node);
    }

    static long end(long node) {
        return offset(node) + len(node);
    }

    static boolean isEndMark(long node) {
        return len(node) == 0;
    }

    static long next(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.next(node, 0)
                : JniSkipListNative.nextNode(node);
    }

    static boolean isMemoryType(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.isMemoryType(node)
                : JniSkipListNative.getNodeFileType(node);
    }

    static int fileNumber(long node) {
        return Byte.toUnsignedInt(NativeLayout.IS_TRUSTED
                ? NativeLayout.fileNumber(node)
                : JniSkipListNative.getNodeFileNumber(node));
    }

    static int fileOffset(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.fileOffset(node)
                : JniSkipListNative.getNodeFileOffset(node);
    }

    static int majorVer(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.majorVer(node)
                : JniSkipListNative.getNodeFileMajorVer(node);
    }

    static int minorVer(long node) {
        return NativeLayout.IS_TRUSTED
                ? NativeLayout.minorVer(node)
                : JniSkipListNative.getNodeFileMinorVer(node);
    }

    /** Tells whether a range is stored nowhere, as {@link MappedRange#isHole}; the end mark not. */
    static boolean isHole(long node) {
        return majorVer(node) == FileLocation.NO_VERSION
                && minorVer(node) == FileLocation.NO_VERSION && !isMemoryType(node)
                && !isEndMark(node);
    }

    static FileLocation location(long node) {
        return new FileLocation(
                fileNumber(node), fileOffset(node), majorVer(node), minorVer(node));
    }

    static MappedRange range(long node) {
        return new MappedRange(offset(node), len(node), isMemoryType(node), location(node));
    }

    /** Gives the map's own slice, or null. Runs no code of the buffer. */
    static ByteBuf buffer(long node) {
        return JniSkipListNative.getNodeFileBuff(node);
    }

    /** Refuses a slice that is not the map's any more, as far as it shows. Runs its code. */
    static void requireHeld(long node, ByteBuf held) {
        int count = held.refCnt();
        int readable = held.readableBytes();
        if (count < 1 || readable != len(node)) {
            throw new IllegalReferenceCountException("buffer of " + range(node)
                    + ": reference count " + count + ", " + readable
                    + " readable bytes (expected: >= 1, " + len(node)
                    + "): a reference of the map's was released");
        }
    }
}
