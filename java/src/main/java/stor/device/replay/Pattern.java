package stor.device.replay;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.Arrays;

/**
 * The bytes of a write: each follows from its logical position and the write's id alone, so that
 * any slice of them can be checked without keeping a copy.
 */
final class Pattern {
    private Pattern() {
    }

    /** Gives the bytes of a range. */
    static byte[] bytes(long start, int length, long writeId) {
        int lead = Math.floorMod(start, Long.BYTES);
        int words = (lead + length + Long.BYTES - 1) / Long.BYTES;
        long firstWord = Math.floorDiv(start, Long.BYTES);
        ByteBuffer aligned =
                ByteBuffer.allocate(words * Long.BYTES).order(ByteOrder.LITTLE_ENDIAN);
        for (int i = 0; i < words; i++) {
            aligned.putLong(word(firstWord + i, writeId));
        }
        byte[] bytes = new byte[length];
        aligned.get(lead, bytes);
        return bytes;
    }

    /** Fills in whole words, from a position that is a multiple of 8. Id 0 stands for zeros. */
    static void fill(byte[] bytes, int at, int length, long start, long writeId) {
        if (writeId == 0) {
            Arrays.fill(bytes, at, at + length, (byte) 0);
            return;
        }
        ByteBuffer words = ByteBuffer.wrap(bytes, at, length).order(ByteOrder.LITTLE_ENDIAN);
        for (long index = start / Long.BYTES; words.hasRemaining(); index++) {
            words.putLong(word(index, writeId));
        }
    }

    /** Mixes position and id so that neighbouring words and writes share no bytes but by chance. */
    private static long word(long index, long writeId) {
        long mixed = index * 0x9E3779B97F4A7C15L + writeId * 0xD1B54A32D192ED03L;
        mixed = (mixed ^ mixed >>> 32) * 0xBF58476D1CE4E5B9L;
        return mixed ^ mixed >>> 29;
    }
}
