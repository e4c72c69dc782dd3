package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import java.util.Objects;

/** Refuses what the native side would take at its word. Each message says what was expected. */
final class Arguments {
    private Arguments() {
    }

    /** Checks a range: positive, and with both ends between the map's two end marks. */
    static void range(String operation, long offset, long len) {
        if (len <= 0) {
            throw illegal(operation, "len: " + len, "> 0");
        }
        if (offset == Long.MIN_VALUE) {
            throw illegal(operation, "offset: " + offset, "> " + Long.MIN_VALUE);
        }
        if (offset >= Long.MAX_VALUE - len) {
            throw illegal(operation, "offset: " + offset + ", len: " + len,
                    "offset + len < " + Long.MAX_VALUE);
        }
    }

    /** Checks a number against both its bounds, which are allowed. */
    static void within(String operation, String name, int value, int least, int most) {
        if (value < least || value > most) {
            throw illegal(operation, name + ": " + value, least + " to " + most);
        }
    }

    /** Checks that an object is there, and gives it. */
    static <T> T notNull(String operation, String name, T value) {
        return Objects.requireNonNull(
                value, () -> operation + ": " + name + ": null (expected: not null)");
    }

    /** Checks that a range is made of whole sectors. */
    static void aligned(String operation, long offset, long len, int sectorSize) {
        if (!FusionGuard.isAligned(offset, len, sectorSize)) {
            throw illegal(operation, "offset: " + offset + ", len: " + len,
                    "multiples of the sector size, " + sectorSize
                            + ", unless the map is made by createUnaligned");
        }
    }

    /** Checks that a buffer is alive and has that many readable bytes. */
    static void bytes(String operation, ByteBuf buffer, int len) {
        int count = buffer.refCnt();
        if (count < 1) {
            throw illegal(operation, "buffer: reference count " + count, ">= 1");
        }
        int readable = buffer.readableBytes();
        if (readable < len) {
            throw illegal(operation, "buffer: " + readable + " readable bytes", ">= " + len);
        }
    }

    static IllegalArgumentException illegal(String operation, String found, String expected) {
        return new IllegalArgumentException(
                operation + ": " + found + " (expected: " + expected + ")");
    }
}
