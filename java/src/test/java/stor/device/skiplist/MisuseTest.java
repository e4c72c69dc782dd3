package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import io.netty.buffer.UnpooledByteBufAllocator;
import io.netty.buffer.UnpooledHeapByteBuf;
import io.netty.util.IllegalReferenceCountException;
import java.util.ArrayList;
import java.util.ConcurrentModificationException;
import java.util.List;
import java.util.function.BiConsumer;
import java.util.function.Consumer;
import java.util.function.Supplier;
import java.util.stream.Stream;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** Calls a map as nobody should: each is an exception that says so, and the map is unharmed. */
@ExtendWith(LeakHunt.class)
class MisuseTest {
    private static final int LENGTH = 4096;
    // The most bytes in whole sectors that a length can say.
    private static final int MOST = Integer.MAX_VALUE / LENGTH * LENGTH;
    private static final FileLocation AT = new FileLocation(3, 0, 1, 0);
    private static final Visitor IGNORE = (o, l, n, f, major, minor, range) -> { };
    // A reference count of 1 that no test changes: such buffers need no release.
    private static final ByteBuf BUFFER =
            Unpooled.unreleasableBuffer(Unpooled.wrappedBuffer(new byte[LENGTH]));

    /** A call under its name. */
    record Call(String name, Consumer<OffHeapRangeMap> body) {
    }

    /** A call, and what it throws; MAP stands for the map's name. */
    record Misuse(String message, Class<? extends Throwable> type, Consumer<OffHeapRangeMap> body) {
        @Override
        public String toString() {
            return message;
        }
    }

    private static List<Call> changes() {
        return List.of(
                new Call("insert", map -> map.insert(0, LENGTH, AT)),
                new Call("insert", map -> map.insert(0, LENGTH, AT, BUFFER)),
                new Call("compareAndSet", map -> map.compareAndSet(0, LENGTH, AT, AT)),
                new Call("compareAndRelease", map -> map.compareAndRelease(0, LENGTH, AT)),
                new Call("release", OffHeapRangeMap::release),
                new Call("releaseBuffers", map -> map.releaseBuffers(0, LENGTH)),
                new Call("redirect", map -> map.redirect(0, LENGTH, AT, AT)),
                new Call("remove", map -> map.remove(0, LENGTH)),
                new Call("replace", map -> map.replace(0, LENGTH, AT, range -> { })),
                new Call("replace", map -> map.replace(0, LENGTH, AT, BUFFER, range -> { })),
                new Call("clear", OffHeapRangeMap::clear),
                new Call("atomically", map -> map.atomically(() -> { })),
                new Call("copyTo", map -> withOther(map, (it, other) -> other.copyTo(it))));
    }

    private static List<Call> calls() {
        List<Call> calls = new ArrayList<>(changes());
        calls.addAll(List.of(
                new Call("copyTo", map -> withOther(map, OffHeapRangeMap::copyTo)),
                new Call("forEach", map -> map.forEach(IGNORE)),
                new Call("forEach", map -> map.forEach(0, LENGTH, IGNORE)),
                new Call("forEachWhile",
                        map -> map.forEachWhile(0, LENGTH, (o, l, n, f, a, b, range) -> true)),
                new Call("forEachDescending", map -> map.forEachDescending(
                        0, LENGTH, (o, l, n, f, a, b, range) -> true)),
                new Call("read", map -> map.read(0, LENGTH, new RangeBatch(1))),
                new Call("ranges", map -> map.ranges(0, LENGTH)),
                new Call("get", map -> map.get(0)),
                new Call("retainedBuffer", map -> map.retainedBuffer(0)),
                new Call("lower", map -> map.lower(0)),
                new Call("higher", map -> map.higher(0)),
                new Call("statistics", OffHeapRangeMap::statistics),
                new Call("floor", map -> map.floor(0)),
                new Call("ceiling", map -> map.ceiling(0)),
                new Call("first", OffHeapRangeMap::first),
                new Call("last", OffHeapRangeMap::last),
                new Call("size", OffHeapRangeMap::size),
                new Call("coveredBytes", OffHeapRangeMap::coveredBytes),
                new Call("insertedBytes", OffHeapRangeMap::insertedBytes),
                new Call("insertCount", OffHeapRangeMap::insertCount),
                new Call("checkInvariants", OffHeapRangeMap::checkInvariants)));
        return calls;
    }

    /** Calls at a wrong time. */
    static Stream<Misuse> untimely() {
        String closer = ": MAP: closed by thread " + Thread.currentThread().getName()
                + " (expected: open)";
        Stream<Misuse> afterClose = calls().stream().map(call ->
                new Misuse(call.name() + closer, IllegalStateException.class, map -> {
                    map.close();
                    map.close();
                    call.body().accept(map);
                }));
        Stream<Misuse> visiting = Stream.concat(
                changes().stream(), Stream.of(new Call("close", OffHeapRangeMap::close)))
                .map(call -> concurrent(call.name()
                        + ": MAP: called while it is being visited (expected: after the visit)",
                        map -> visit(map, range -> call.body().accept(map))));
        Stream<Misuse> calledBack = Stream.concat(
                calls().stream(), Stream.of(new Call("close", OffHeapRangeMap::close)))
                .map(call -> concurrent(call.name() + ": MAP: called back while it is being "
                        + "changed (expected: after the change)",
                        map -> callBack(map, call.body())));
        return Stream.of(afterClose, visiting, calledBack).flatMap(misuse -> misuse);
    }

    static Stream<Misuse> wrongRanges() {
        return Stream.of(
                wrongRange("len: -4096 (expected: > 0)", 0, -4096),
                wrongRange("len: 0 (expected: > 0)", 0, 0),
                wrongRange("offset: -9223372036854775808 (expected: > -9223372036854775808)",
                        Long.MIN_VALUE, 1),
                wrongRange("offset: 9223372036854771711, len: 4096 "
                        + "(expected: offset + len < 9223372036854775807)",
                        Long.MAX_VALUE - LENGTH, LENGTH)).flatMap(misuse -> misuse);
    }

    private static Stream<Misuse> wrongRange(String message, long offset, int len) {
        return Stream.of(
                new Call("insert", map -> map.insert(offset, len, AT)),
                new Call("insert", map -> map.insert(offset, len, AT, BUFFER)),
                new Call("remove", map -> map.remove(offset, len)),
                new Call("compareAndSet", map -> map.compareAndSet(offset, len, AT, AT)),
                new Call("compareAndRelease", map -> map.compareAndRelease(offset, len, AT)),
                new Call("forEach", map -> map.forEach(offset, len, IGNORE)),
                new Call("ranges", map -> map.ranges(offset, len)))
                .map(call -> illegal(call.name() + ": " + message, call.body()));
    }

    static Stream<Misuse> wrongArguments() {
        return Stream.of(
                illegal("create: height: 0 (expected: 1 to 64)",
                        map -> OffHeapRangeMap.create(0, 512)),
                illegal("create: height: 65 (expected: 1 to 64)",
                        map -> OffHeapRangeMap.create(65, 512)),
                illegal("create: sectorSize: 0 (expected: 1 to 1073741824)",
                        map -> OffHeapRangeMap.create(1, 0)),
                illegal("create: sectorSize: 1073741825 (expected: 1 to 1073741824)",
                        map -> OffHeapRangeMap.create(1, (1 << 30) + 1)),
                illegal("FileLocation: number: -1 (expected: 0 to 255)",
                        map -> new FileLocation(-1, 0, 0, 0)),
                illegal("FileLocation: number: 256 (expected: 0 to 255)",
                        map -> new FileLocation(256, 0, 0, 0)),
                illegal("plus: sectorSize: 0 (expected: 1 to 1073741824)", map -> AT.plus(1, 0)),
                illegal("setLimit: bytes: 0 (expected: > 0)", map -> NativeMemory.setLimit(0)),
                illegal("insert: location: FileLocation[number=0, offset=5, majorVer=-1, "
                        + "minorVer=-1] with a buffer (expected: a version other than -1, or no "
                        + "buffer)",
                        map -> map.insert(0, LENGTH, new FileLocation(0, 5, -1, -1), BUFFER)),
                illegal("insert: buffer: 4096 readable bytes (expected: >= 8192)",
                        map -> map.insert(0, 2 * LENGTH, AT, BUFFER)),
                illegal("insert: buffer: reference count 0 (expected: >= 1)",
                        map -> map.insert(0, LENGTH, AT, released())),
                illegal("insert: offset: 4096, len: 2147479552: continues stored ranges to "
                        + "2147483648 bytes (expected: <= 2147483647)", map -> {
                            map.insert((long) MOST, 2 * LENGTH, FileLocation.EMPTY);
                            map.insert(LENGTH, MOST, FileLocation.EMPTY);
                        }),
                illegal("copyTo: destination: MAP (expected: another map)",
                        map -> map.copyTo(map)),
                nothing("insert: location", map -> map.insert(0, 1, null)),
                nothing("insert: location", map -> map.insert(0, 1, null, BUFFER)),
                nothing("insert: buffer", map -> map.insert(0, 1, AT, null)),
                nothing("compareAndSet: expected", map -> map.compareAndSet(0, 1, null, AT)),
                nothing("compareAndSet: replacement", map -> map.compareAndSet(0, 1, AT, null)),
                nothing("compareAndRelease: expected", map -> map.compareAndRelease(0, 1, null)),
                nothing("copyTo: destination", map -> map.copyTo(null)),
                nothing("forEach: visitor", map -> map.forEach(null)),
                nothing("forEach: visitor", map -> map.forEach(0, 1, null)));
    }

    /** What visitors and buffers should not do. */
    static Stream<Misuse> badManners() {
        String stale = "visited range: used outside its visit (expected: only in visit())";
        return Stream.of(
                concurrent(stale, map -> keep(map).buffer()),
                concurrent(stale, map -> keep(map).retainedBuffer()),
                concurrent(stale, map -> keep(map).isMemoryType()),
                concurrent(stale, map -> visit(map, range -> InThread.join(
                        InThread.start(range::isMemoryType)))),
                concurrent("clear: MAP: called while it is being visited (expected: after the visit)",
                        map -> visit(map, range -> withOther(map, (it, other) -> {
                            other.insert(0, LENGTH, AT);
                            visit(other, inner -> it.clear());
                        }))),
                new Misuse("enough", IllegalStateException.class, map -> visit(map, range -> {
                    throw new IllegalStateException("enough");
                })),
                new Misuse("Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice) failed",
                        RuntimeException.class, map -> map.insert(0, LENGTH, AT,
                                new ForeignBuffer(UnsupportedOperationException::new))),
                new Misuse("refCnt: 0, decrement: 1", IllegalReferenceCountException.class,
                        map -> {
                            ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
                            map.insert(3L * LENGTH, LENGTH, AT, buffer);
                            buffer.release(2);
                            assertEquals("buffer of " + map.last().orElseThrow(), assertThrows(
                                    IllegalReferenceCountException.class,
                                    () -> visit(map, range -> range.buffer()))
                                    .getMessage().replaceFirst(": reference count 0, .*", ""));
                            // Completes all the same.
                            map.release();
                        }));
    }

    @ParameterizedTest
    @MethodSource({"untimely", "wrongRanges", "wrongArguments", "badManners"})
    void misuseIsRefusedAndHarmsNothing(Misuse misuse) {
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, 512)) {
            map.insert(0, LENGTH, AT);
            map.insert(2L * LENGTH, LENGTH, AT);
            List<MappedRange> before = map.ranges(0, 3 * LENGTH);
            Throwable thrown = assertThrows(misuse.type(), () -> misuse.body().accept(map));
            assertEquals(misuse.message().replace("MAP", map.toString()), thrown.getMessage());
            if (!map.isClosed()) {
                assertEquals(before, map.ranges(0, 3 * LENGTH));
                map.checkInvariants();
                map.insert(LENGTH, LENGTH, AT, BUFFER);
            }
        }
        assertEquals(1, BUFFER.refCnt());
    }

    /** A buffer of a stranger, who throws when it is retained. */
    private static final class ForeignBuffer extends UnpooledHeapByteBuf {
        private final Supplier<RuntimeException> onSlice;

        ForeignBuffer(Supplier<RuntimeException> onSlice) {
            super(UnpooledByteBufAllocator.DEFAULT, LENGTH, LENGTH);
            this.onSlice = onSlice;
            writeZero(LENGTH);
        }

        @Override
        public ByteBuf retainedSlice() {
            throw onSlice.get();
        }
    }

    /** Calls a map from inside a buffer that it is about to take, and throws what that throws. */
    private static void callBack(OffHeapRangeMap map, Consumer<OffHeapRangeMap> call) {
        List<RuntimeException> thrown = new ArrayList<>();
        ByteBuf buffer = new ForeignBuffer(() -> {
            thrown.add(assertThrows(RuntimeException.class, () -> call.accept(map)));
            return thrown.get(0);
        });
        assertThrows(RuntimeException.class, () -> map.insert(3L * LENGTH, LENGTH, AT, buffer));
        assertEquals(1, buffer.refCnt());
        throw thrown.get(0);
    }

    /** What a visitor does with a range. */
    private interface Use {
        void of(Visited range) throws Exception;
    }

    private static void visit(OffHeapRangeMap map, Use use) {
        map.forEach((o, l, n, f, major, minor, range) -> {
            try {
                use.of(range);
            } catch (RuntimeException e) {
                throw e;
            } catch (Exception e) {
                throw new AssertionError(e);
            }
        });
    }

    private static Visited keep(OffHeapRangeMap map) {
        List<Visited> kept = new ArrayList<>();
        visit(map, kept::add);
        return kept.get(0);
    }

    private static void withOther(
            OffHeapRangeMap map, BiConsumer<OffHeapRangeMap, OffHeapRangeMap> body) {
        try (OffHeapRangeMap other = OffHeapRangeMap.create(1, 512)) {
            body.accept(map, other);
        }
    }

    private static ByteBuf released() {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
        buffer.release();
        return buffer;
    }

    private static Misuse illegal(String message, Consumer<OffHeapRangeMap> body) {
        return new Misuse(message, IllegalArgumentException.class, body);
    }

    private static Misuse concurrent(String message, Consumer<OffHeapRangeMap> body) {
        return new Misuse(message, ConcurrentModificationException.class, body);
    }

    private static Misuse nothing(String argument, Consumer<OffHeapRangeMap> body) {
        return new Misuse(
                argument + ": null (expected: not null)", NullPointerException.class, body);
    }
}
