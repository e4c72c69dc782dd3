package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import java.util.Objects;

/** Refuses what the native side would take at its word. Each message says what was expected. */
final class Arguments {
    private Arguments() {
    }

    /** Checks a range: positive, and with both ends between the map's two end marks. */
    static void range(String operation, long offset, int len) {
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

    /** Gives the first {@code len} readable bytes of a buffer, with no reference of their own. */
    static ByteBuf bytes(String operation, ByteBuf buffer, int len) {
        notNull(operation, "buffer", buffer);
        if (buffer.refCnt() < 1) {
            throw illegal(operation, "buffer: reference count " + buffer.refCnt(), ">= 1");
        }
        int readable = buffer.readableBytes();
        if (readable < len) {
            throw illegal(operation, "buffer: " + readable + " readable bytes", ">= " + len);
        }
        return readable == len ? buffer : buffer.slice(buffer.readerIndex(), len);
    }

    static IllegalArgumentException illegal(String operation, String found, String expected) {
        return new IllegalArgumentException(
                operation + ": " + found + " (expected: " + expected + ")");
    }
}
