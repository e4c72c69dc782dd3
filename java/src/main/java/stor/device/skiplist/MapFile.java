package stor.device.skiplist;

import java.nio.ByteBuffer;
import java.util.zip.CRC32C;

/**
 * What {@link MapFileWriter} and {@link MapFileReader} agree on; {@code docs/format.md} tells it in
 * full. All numbers of fixed size are big-endian.
 *
 * <pre>
 *   header   magic 8 | version 2 | kind 1 | height 1 | sector size 4 | checksum 4
 *   block    length of the ranges 4 | ranges | checksum 4                  any number of them
 *   end      0 in place of a length 4 | number of ranges 8 | checksum 4
 *
 *   range    what differs 1 | [gap] [length] [place] [number] [major] [minor]
 * </pre>
 *
 * <p>A checksum is the CRC32C of all bytes of the file before it, so that a block which is missing
 * or in another's place is noticed like one that is damaged. A range says only how it differs from
 * the one expected: which begins where the last range ended on the device and in the file, and is
 * as long and of the same file and versions.
 */
final class MapFile {
    static final long MAGIC = 0x89_52_4D_41_50_0D_0A_1AL;  // "\x89RMAP\r\n\x1a"
    static final short VERSION = 1;
    /** The kind of a map that refuses ranges which are not in whole sectors. */
    static final byte WHOLE_SECTORS = 0;
    static final byte ANY_RANGES = 1;

    static final int HEADER_BYTES = Long.BYTES + Short.BYTES + 2 * Byte.BYTES + Integer.BYTES;
    static final int CHECKSUM_BYTES = Integer.BYTES;
    /** The most bytes of ranges that a block may have. */
    static final int BLOCK_BYTES = 1 << 16;
    /** More than any range takes: a byte of flags, one of the number, ten and four times five. */
    static final int RANGE_BYTES = 32;

    static final int GAP = 1;
    static final int LENGTH = 1 << 1;
    static final int PLACE = 1 << 2;
    static final int NUMBER = 1 << 3;
    static final int MAJOR = 1 << 4;
    static final int MINOR = 1 << 5;
    static final int ALL_FLAGS = (1 << 6) - 1;

    private MapFile() {
    }

    /** Continues a checksum over the bytes of a buffer from a position on, and gives its value. */
    static int checksum(CRC32C running, ByteBuffer bytes, int from, int to) {
        running.update(bytes.array(), from, to - from);
        return (int) running.getValue();
    }

    /** Maps small numbers of either sign to small ones without: 0, -1, 1, -2, ... */
    static int zigzag(int value) {
        return value << 1 ^ value >> 31;
    }

    static int unzigzag(int value) {
        return value >>> 1 ^ -(value & 1);
    }
}
