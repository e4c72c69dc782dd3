package stor.device.skiplist;

import java.lang.invoke.MethodHandle;
import java.lang.invoke.MethodHandles;
import java.lang.invoke.MethodHandles.Lookup;
import java.lang.invoke.MethodType;
import java.lang.invoke.VarHandle;
import java.lang.reflect.Field;

/**
 * Reads native memory by its address, with what the running JVM has for it and prints no warning
 * about: the foreign-memory interface where this module may use native code, as it may once the
 * library is loaded on every JVM that warns of the other way; otherwise, and on all JVMs before
 * that interface, the unsafe way. A JVM that has neither reads nothing here.
 *
 * <p>Nothing checks an address. Whoever reads sees to it that the memory is there, and that nobody
 * writes to it meanwhile.
 */
final class MemoryReader {
    private static final int FIRST_WITH_SEGMENTS = 22;
    private static final int FIRST_TO_WARN_OF_UNSAFE = 24;

    private static final MethodHandle LONG;
    private static final MethodHandle INT;
    private static final MethodHandle BYTE;

    static {
        Reads reads = find();
        LONG = reads.longs;
        INT = reads.ints;
        BYTE = reads.bytes;
    }

    private MemoryReader() {
    }

    /** Ways to read a value at an address; or null, all three. */
    private record Reads(MethodHandle longs, MethodHandle ints, MethodHandle bytes) {
    }

    /** Tells whether this JVM lets us read. */
    static boolean isAvailable() {
        return LONG != null;
    }

    static long readLong(long address) {
        try {
            return (long) LONG.invokeExact(address);
        } catch (Throwable e) {
            throw failure(e);
        }
    }

    static int readInt(long address) {
        try {
            return (int) INT.invokeExact(address);
        } catch (Throwable e) {
            throw failure(e);
        }
    }

    static byte readByte(long address) {
        try {
            return (byte) BYTE.invokeExact(address);
        } catch (Throwable e) {
            throw failure(e);
        }
    }

    private static Error failure(Throwable thrown) {
        return thrown instanceof Error error ? error : new AssertionError(thrown);
    }

    private static Reads find() {
        int version = Runtime.version().feature();
        try {
            // A JVM that warns of the unsafe way has let this module load the library.
            return version >= FIRST_TO_WARN_OF_UNSAFE
                    || version >= FIRST_WITH_SEGMENTS && isNativeAccessEnabled()
                    ? bySegment() : byUnsafe();
        } catch (Exception | Error e) {
            // This JVM, or an image made ahead of time, is without it.
        }
        return new Reads(null, null, null);
    }

    private static boolean isNativeAccessEnabled() throws ReflectiveOperationException {
        return (boolean) Module.class.getMethod("isNativeAccessEnabled")
                .invoke(MemoryReader.class.getModule());
    }

    private static Reads bySegment() throws ReflectiveOperationException {
        Class<?> segment = Class.forName("java.lang.foreign.MemorySegment");
        MethodHandle reinterpret = MethodHandles.lookup().findVirtual(
                segment, "reinterpret", MethodType.methodType(segment, long.class));
        Object all;
        try {
            all = reinterpret.invoke(segment.getField("NULL").get(null), Long.MAX_VALUE);
        } catch (Throwable e) {
            throw new ReflectiveOperationException(e);
        }
        return new Reads(bySegment(all, "JAVA_LONG_UNALIGNED"),
                bySegment(all, "JAVA_INT_UNALIGNED"), bySegment(all, "JAVA_BYTE"));
    }

    private static MethodHandle bySegment(Object all, String layout)
            throws ReflectiveOperationException {
        Class<?> layouts = Class.forName("java.lang.foreign.ValueLayout");
        VarHandle values = (VarHandle) layouts.getMethod("varHandle")
                .invoke(layouts.getField(layout).get(null));
        return MethodHandles.insertArguments(
                values.toMethodHandle(VarHandle.AccessMode.GET), 0, all);
    }

    private static Reads byUnsafe() throws ReflectiveOperationException {
        Class<?> unsafe = Class.forName("sun.misc.Unsafe");
        Field only = unsafe.getDeclaredField("theUnsafe");
        only.setAccessible(true);
        Object reader = only.get(null);
        Lookup lookup = MethodHandles.lookup();
        return new Reads(
                lookup.bind(reader, "getLong", MethodType.methodType(long.class, long.class)),
                lookup.bind(reader, "getInt", MethodType.methodType(int.class, long.class)),
                lookup.bind(reader, "getByte", MethodType.methodType(byte.class, long.class)));
    }
}
