package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import io.netty.buffer.UnpooledByteBufAllocator;
import io.netty.buffer.UnpooledHeapByteBuf;
import io.netty.util.IllegalReferenceCountException;
import java.util.ArrayList;
import java.util.ConcurrentModificationException;
import java.util.List;
import java.util.concurrent.Callable;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** Calls a map as nobody should: each is an exception that says so, and the map is unharmed. */
@ExtendWith(LeakHunt.class)
class MisuseTest {
    private static final int LENGTH = 4096;
    private static final FileLocation AT = new FileLocation(3, 0, 1, 0);
    private static final OffHeapRangeMap.Visitor IGNORE = (o, l, n, f, major, minor, range) -> { };
    // A reference count of 1 that no test changes: such buffers need no release.
    private static final ByteBuf BUFFER =
            Unpooled.unreleasableBuffer(Unpooled.wrappedBuffer(new byte[LENGTH]));

    private OffHeapRangeMap map;
    private List<MappedRange> before;

    /** A call under its name. */
    record Call(String name, Consumer<OffHeapRangeMap> body) {
        @Override
        public String toString() {
            return name;
        }
    }

    /** A call and what it throws. */
    record Wrong(Call call, Class<? extends Exception> type, String message) {
        @Override
        public String toString() {
            return message;
        }
    }

    /** A buffer of a stranger, who runs code of his own when it is retained. */
    private static final class ForeignBuffer extends UnpooledHeapByteBuf {
        private final Runnable onSlice;

        ForeignBuffer(Runnable onSlice) {
            super(UnpooledByteBufAllocator.DEFAULT, LENGTH, LENGTH);
            this.onSlice = onSlice;
            writeZero(LENGTH);
        }

        @Override
        public ByteBuf retainedSlice() {
            onSlice.run();
            return super.retainedSlice();
        }
    }

    @BeforeEach
    void fill() {
        map = OffHeapRangeMap.create(12, 512);
        map.insert(0, LENGTH, AT);
        map.insert(2L * LENGTH, LENGTH, AT);
        before = map.ranges(0, 4 * LENGTH);
    }

    @AfterEach
    void assertUnharmed() {
        if (!map.isClosed()) {
            assertEquals(before, map.ranges(0, 4 * LENGTH));
            map.checkInvariants();
            map.insert(LENGTH, LENGTH, AT, BUFFER);
            map.close();
        }
        assertEquals(1, BUFFER.refCnt());
    }

    static List<Call> changes() {
        return List.of(
                new Call("insert", map -> map.insert(0, LENGTH, AT)),
                new Call("insert", map -> map.insert(0, LENGTH, AT, BUFFER)),
                new Call("compareAndSet", map -> map.compareAndSet(0, LENGTH, AT, AT)),
                new Call("compareAndRelease", map -> map.compareAndRelease(0, LENGTH, AT)),
                new Call("release", OffHeapRangeMap::release),
                new Call("copyTo", MisuseTest::copyInto));
    }

    static List<Call> calls() {
        List<Call> calls = new ArrayList<>(changes());
        calls.addAll(List.of(
                new Call("copyTo", MisuseTest::copyFrom),
                new Call("forEach", map -> map.forEach(IGNORE)),
                new Call("forEach", map -> map.forEach(0, LENGTH, IGNORE)),
                new Call("ranges", map -> map.ranges(0, LENGTH)),
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

    @ParameterizedTest
    @MethodSource("calls")
    void aClosedMapRefuses(Call call) {
        map.close();
        String closer = Thread.currentThread().getName();
        assertThrowsText(IllegalStateException.class,
                call.name() + ": " + map + ": closed by thread " + closer + " (expected: open)",
                () -> call.body().accept(map));
    }

    @Test
    void closeTwiceIsQuiet() throws Exception {
        map.close();
        map.close();
        InThread.call(() -> {
            map.close();
            return null;
        });
        assertTrue(map.isClosed());
    }

    static Stream<Call> changesAndClose() {
        return Stream.concat(
                changes().stream(), Stream.of(new Call("close", OffHeapRangeMap::close)));
    }

    @ParameterizedTest
    @MethodSource("changesAndClose")
    void aVisitorMayNotChangeItsMap(Call call) {
        assertThrowsText(ConcurrentModificationException.class, call.name() + ": " + map
                + ": called while it is being visited (expected: after the visit)",
                () -> map.forEach((o, l, n, f, major, minor, range) -> call.body().accept(map)));
    }

    @ParameterizedTest
    @MethodSource("calls")
    void aBufferMayNotCallTheMapThatTakesIt(Call call) {
        AtomicReference<Exception> thrown = new AtomicReference<>();
        ByteBuf buffer = new ForeignBuffer(() -> thrown.set(
                assertThrows(ConcurrentModificationException.class,
                        () -> call.body().accept(map))));
        map.insert(3L * LENGTH, LENGTH, AT, buffer);
        assertEquals(call.name() + ": " + map
                + ": called back while it is being changed (expected: after the change)",
                thrown.get().getMessage());
        map.compareAndRelease(3L * LENGTH, LENGTH, AT);
        assertEquals(1, buffer.refCnt());
        buffer.release();
        before = map.ranges(0, 4 * LENGTH);
    }

    static Stream<Wrong> wrongRanges() {
        return Stream.of(
                wrongRange("len: -4096 (expected: > 0)", 0, -4096),
                wrongRange("len: 0 (expected: > 0)", 0, 0),
                wrongRange("offset: -9223372036854775808 (expected: > -9223372036854775808)",
                        Long.MIN_VALUE, 1),
                wrongRange("offset: 9223372036854771711, len: 4096 "
                        + "(expected: offset + len < 9223372036854775807)",
                        Long.MAX_VALUE - LENGTH, LENGTH)).flatMap(List::stream);
    }

    private static List<Wrong> wrongRange(String message, long offset, int len) {
        return Stream.of(
                new Call("insert", map -> map.insert(offset, len, AT)),
                new Call("insert", map -> map.insert(offset, len, AT, BUFFER)),
                new Call("compareAndSet", map -> map.compareAndSet(offset, len, AT, AT)),
                new Call("compareAndRelease", map -> map.compareAndRelease(offset, len, AT)),
                new Call("forEach", map -> map.forEach(offset, len, IGNORE)),
                new Call("ranges", map -> map.ranges(offset, len)))
                .map(call -> illegal(call.name() + ": " + message, call.body())).toList();
    }

    static Stream<Wrong> wrongArguments() {
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
                illegal("insert: location: FileLocation[number=0, offset=-1, majorVer=-1, "
                        + "minorVer=-1] with a buffer (expected: a version other than -1, or no "
                        + "buffer)",
                        map -> map.insert(0, LENGTH, FileLocation.EMPTY, BUFFER)),
                illegal("insert: buffer: 100 readable bytes (expected: >= 4096)",
                        map -> map.insert(0, LENGTH, AT, Unpooled.wrappedBuffer(new byte[100]))),
                illegal("insert: buffer: reference count 0 (expected: >= 1)",
                        map -> map.insert(0, LENGTH, AT, released())),
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

    @ParameterizedTest
    @MethodSource({"wrongRanges", "wrongArguments"})
    void aWrongArgumentIsRefused(Wrong wrong) {
        assertThrowsText(wrong.type(), wrong.message(), () -> wrong.call().body().accept(map));
    }

    @Test
    void aMapIsNotCopiedIntoItself() {
        assertThrowsText(IllegalArgumentException.class,
                "copyTo: destination: " + map + " (expected: another map)", () -> map.copyTo(map));
    }

    @Test
    void aVisitedRangeEndsWithItsWalk() {
        AtomicReference<OffHeapRangeMap.Visited> kept = new AtomicReference<>();
        map.forEach((o, l, n, f, major, minor, range) -> kept.set(range));
        assertStale(() -> kept.get().buffer());
        assertStale(() -> kept.get().retainedBuffer());
        map.insert(LENGTH, LENGTH, AT, BUFFER);
        assertStale(() -> kept.get().isMemoryType());
        before = map.ranges(0, 4 * LENGTH);
    }

    @Test
    void aVisitedRangeBelongsToItsThread() {
        map.forEach((o, l, n, f, major, minor, range) -> assertStale(() -> call(() -> {
            range.isMemoryType();
            return null;
        })));
    }

    @Test
    void anExceptionOfAVisitorEndsTheWalkOnly() {
        assertThrowsText(IllegalStateException.class, "enough",
                () -> map.forEach((o, l, n, f, major, minor, range) -> {
                    throw new IllegalStateException("enough");
                }));
    }

    @Test
    void aBufferThatCannotBeSlicedIsNotStored() {
        ByteBuf buffer = new ForeignBuffer(() -> {
            throw new UnsupportedOperationException();
        });
        assertThrows(RuntimeException.class, () -> map.insert(0, LENGTH, AT, buffer));
        assertEquals(1, buffer.refCnt());
        buffer.release();
    }

    @Test
    void aBorrowedBufferThatWasReleasedIsReportedWhenTheMapGivesItBack() {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
        map.insert(3L * LENGTH, LENGTH, AT, buffer);
        map.forEach(3L * LENGTH, LENGTH, (o, l, n, f, major, minor, range) -> {
            range.buffer().release();
            buffer.release();
        });
        assertThrows(IllegalReferenceCountException.class,
                () -> map.insert(3L * LENGTH, LENGTH, AT));
        before = map.ranges(0, 4 * LENGTH);
    }

    private static void copyInto(OffHeapRangeMap map) {
        try (OffHeapRangeMap other = OffHeapRangeMap.create(1, 512)) {
            other.copyTo(map);
        }
    }

    private static void copyFrom(OffHeapRangeMap map) {
        try (OffHeapRangeMap other = OffHeapRangeMap.create(1, 512)) {
            map.copyTo(other);
        }
    }

    private static ByteBuf released() {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
        buffer.release();
        return buffer;
    }

    private static Wrong illegal(String message, Consumer<OffHeapRangeMap> body) {
        return new Wrong(new Call(message, body), IllegalArgumentException.class, message);
    }

    private static Wrong nothing(String argument, Consumer<OffHeapRangeMap> body) {
        String message = argument + ": null (expected: not null)";
        return new Wrong(new Call(message, body), NullPointerException.class, message);
    }

    private static void assertStale(Runnable use) {
        assertThrowsText(ConcurrentModificationException.class,
                "visited range: used outside its visit (expected: only in visit())", use);
    }

    private static void assertThrowsText(
            Class<? extends Exception> type, String message, Runnable call) {
        assertEquals(message, assertThrows(type, call::run).getMessage());
    }

    private static void call(Callable<Void> body) {
        try {
            InThread.call(body);
        } catch (RuntimeException e) {
            throw e;
        } catch (Exception e) {
            throw new AssertionError(e);
        }
    }
}
