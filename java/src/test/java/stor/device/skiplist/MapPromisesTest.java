package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.PooledByteBufAllocator;
import io.netty.buffer.Unpooled;
import io.netty.buffer.UnpooledByteBufAllocator;
import io.netty.buffer.UnpooledHeapByteBuf;
import io.netty.util.IllegalReferenceCountException;
import java.util.ArrayList;
import java.util.ConcurrentModificationException;
import java.util.List;
import java.util.Queue;
import java.util.concurrent.ConcurrentLinkedQueue;
import java.util.concurrent.Executors;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;
import java.util.function.Consumer;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.MethodSource;

/** What a map promises where it is hardest to keep. */
@ExtendWith(LeakHunt.class)
class MapPromisesTest {
    private static final int SECTOR = 512;
    private static final long SMALL_STACK = 256 << 10;
    private static final FileLocation AT = new FileLocation(3, 0, 1, 0);

    /** A call under its name. */
    record Call(String name, Consumer<OffHeapRangeMap> body) {
        @Override
        public String toString() {
            return name;
        }
    }

    private static final ByteBuf BUFFER = Unpooled.wrappedBuffer(new byte[4 * SECTOR]);
    private static final Queue<OffHeapRangeMap> OTHERS = new ConcurrentLinkedQueue<>();

    static Stream<Call> calls() {
        return Stream.of(
                new Call("size", OffHeapRangeMap::size),
                new Call("insert", map -> map.insert(0, SECTOR, AT)),
                new Call("insert, cut", map -> {
                    map.insert(0, 4 * SECTOR, AT, BUFFER);
                    map.insert(SECTOR, SECTOR, AT, BUFFER);
                }),
                new Call("compareAndSet", map -> map.compareAndSet(0, SECTOR, AT, AT)),
                new Call("release", map -> {
                    map.insert(0, SECTOR, AT, BUFFER);
                    map.release();
                }),
                new Call("forEach", map -> map.forEach((o, l, n, f, a, b, range) ->
                        range.isMemoryType())),
                new Call("remove", map -> map.remove(0, SECTOR)),
                new Call("statistics", OffHeapRangeMap::statistics),
                new Call("checkInvariants", OffHeapRangeMap::checkInvariants),
                new Call("close", map -> {
                    OffHeapRangeMap other = OffHeapRangeMap.create(4, SECTOR);
                    OTHERS.add(other);
                    other.insert(0, SECTOR, AT, BUFFER);
                    other.close();
                }),
                new Call("clear", map -> {
                    map.insert(0, SECTOR, AT, BUFFER);
                    map.clear();
                }));
    }

    /** Calls where the stack ends, and a frame further up each time, until there is enough of it. */
    private static void dive(Runnable body) {
        try {
            dive(body);
        } catch (StackOverflowError atTheEnd) {
            body.run();
        }
    }

    @ParameterizedTest
    @MethodSource("calls")
    void whereTheStackEndsNoLockAndNoReferenceIsLeft(Call call) throws Exception {
        OffHeapRangeMap map = OffHeapRangeMap.create(4, SECTOR);
        InThread.call(SMALL_STACK, Executors.callable(() -> dive(() -> call.body().accept(map))));
        FutureTask<Object> check = InThread.start(() -> {
            map.checkInvariants();
            map.close();
            OTHERS.forEach(OffHeapRangeMap::close);
            OTHERS.clear();
            return null;
        });
        check.get(30, TimeUnit.SECONDS);
        assertEquals(1, BUFFER.refCnt());
    }

    /** A buffer of which every method that a map may call does something else first. */
    private static final class HostileBuffer extends UnpooledHeapByteBuf {
        private final Runnable first;

        HostileBuffer(Runnable first) {
            super(UnpooledByteBufAllocator.DEFAULT, SECTOR, SECTOR);
            this.first = first;
            writeZero(SECTOR);
        }

        @Override
        public int refCnt() {
            first.run();
            return super.refCnt();
        }

        @Override
        public int readableBytes() {
            first.run();
            return super.readableBytes();
        }

        @Override
        public ByteBuf touch(Object hint) {
            first.run();
            return this;
        }

        @Override
        public ByteBuf slice() {
            first.run();
            return this;
        }

        @Override
        public ByteBuf retainedSlice() {
            first.run();
            return retain();
        }

        @Override
        public ByteBuf retainedSlice(int index, int length) {
            first.run();
            return retain();
        }

        @Override
        public boolean release() {
            first.run();
            return super.release();
        }

        @Override
        public String toString() {
            first.run();
            return "hostile";
        }
    }

    @Test
    void buffersThatCallBackMeetTheMapInNoStateOfItsOwn() {
        int refused = 0;
        for (int round = 0; round < 100; round++) {
            try (OffHeapRangeMap other = OffHeapRangeMap.create(4, SECTOR);
                    OffHeapRangeMap map = OffHeapRangeMap.create(4, SECTOR)) {
                refused += useHostileBuffers(map, other, round);
            }
        }
        assertTrue(refused > 1000, refused + " refused");
    }

    /** Each call of the buffers' makes the next call of the map; counts those refused. */
    private static int useHostileBuffers(OffHeapRangeMap map, OffHeapRangeMap other, int start) {
        List<Call> calls = new ArrayList<>(calls().toList());
        calls.add(new Call("copyTo", it -> it.copyTo(other)));
        calls.add(new Call("copyTo", other::copyTo));
        calls.add(new Call("other", it -> other.insert(0, SECTOR, AT)));
        int[] next = {start};
        int[] refused = new int[1];
        boolean[] inside = new boolean[1];
        ByteBuf hostile = new HostileBuffer(() -> {
            if (!inside[0]) {
                inside[0] = true;
                try {
                    calls.get(next[0]++ % calls.size()).body().accept(map);
                    if (next[0] % 97 == 0) {
                        map.close();
                    }
                } catch (ConcurrentModificationException e) {
                    refused[0]++;
                } catch (IllegalStateException closed) {
                    assertTrue(map.isClosed(), closed.toString());
                } finally {
                    inside[0] = false;
                }
            }
        });
        for (int i = 0; i < 8; i++) {
            try {
                map.insert(i * SECTOR, SECTOR, AT, hostile);
                map.checkInvariants();
                map.forEach((o, l, n, f, a, b, range) -> range.buffer());
                map.insert(i / 2 * SECTOR, SECTOR, AT);
                map.releaseBuffers(0, 4 * SECTOR);
            } catch (IllegalStateException closed) {
                assertTrue(map.isClosed(), closed.toString());
            }
        }
        return refused[0];
    }

    @Test
    void aCopyAndAVisitorThatWritesNeverWaitForEachOther() throws Exception {
        try (OffHeapRangeMap first = OffHeapRangeMap.create(4, SECTOR);
                OffHeapRangeMap second = OffHeapRangeMap.create(4, SECTOR)) {
            second.insert(0, SECTOR, AT);
            List<FutureTask<Object>> both = new ArrayList<>();
            for (Runnable body : List.<Runnable>of(() -> second.copyTo(first),
                    () -> second.forEach((o, l, n, f, a, b, range) -> first.insert(o, l, AT)))) {
                both.add(InThread.start(() -> {
                    for (int i = 0; i < 20_000; i++) {
                        body.run();
                    }
                    return null;
                }));
            }
            for (FutureTask<Object> task : both) {
                task.get(60, TimeUnit.SECONDS);
            }
        }
    }

    @Test
    void theLimitHoldsThoughNobodyAsks() throws Exception {
        long limit = NativeMemory.limit();
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR)) {
            Thread asking = new Thread(() -> {
                while (!Thread.interrupted()) {
                    NativeMemory.bytesInUse();
                    LockSupport.parkNanos(1000);
                }
            });
            asking.start();
            long inUse = InThread.start(NativeMemory::sweep).get(30, TimeUnit.SECONDS);
            asking.interrupt();
            NativeMemory.setLimit(inUse + (1 << 20));
            long end = System.nanoTime() + TimeUnit.SECONDS.toNanos(30);
            assertThrows(OutOfMemoryError.class, () -> {
                for (long i = 0; System.nanoTime() < end; i++) {
                    map.insert(2 * i * SECTOR, SECTOR, AT);
                    if (i % 2000 == 0) {
                        Thread.sleep(100);
                    }
                }
            });
        } finally {
            NativeMemory.setLimit(limit);
        }
    }

    @Test
    void aBufferSaysWhyItWasNotSliced() {
        UnsupportedOperationException own = new UnsupportedOperationException();
        ByteBuf hostile = new UnpooledHeapByteBuf(UnpooledByteBufAllocator.DEFAULT, SECTOR, SECTOR) {
            @Override
            public ByteBuf retainedSlice() {
                throw own;
            }
        }.writeZero(SECTOR);
        ByteBuf shared = Unpooled.buffer().writeZero(4 * SECTOR);
        try (OffHeapRangeMap map = OffHeapRangeMap.create(4, SECTOR)) {
            assertSame(own, assertThrows(RuntimeException.class,
                    () -> map.insert(0, SECTOR, AT, hostile)).getCause());
            map.insert(0, 4 * SECTOR, AT, shared);
            shared.release(2);
            Throwable cause = assertThrows(RuntimeException.class,
                    () -> map.insert(SECTOR, SECTOR, AT)).getCause();
            assertEquals(IllegalReferenceCountException.class, cause.getClass());
            assertThrows(IllegalReferenceCountException.class, () -> map.retainedBuffer(0));
            assertThrows(IllegalReferenceCountException.class,
                    () -> map.forEach((o, l, n, f, a, b, range) -> range.buffer()));
            assertThrows(AssertionError.class, map::checkInvariants);
            assertThrows(IllegalReferenceCountException.class, map::clear);
            assertEquals(0, map.size());
        }
        hostile.release();
    }

    @Test
    void aBufferThatIsNotGivenBackHoldsUpNeitherTheOthersNorTheNews() {
        List<MappedRange> displaced = new ArrayList<>();
        for (Consumer<OffHeapRangeMap> change : List.<Consumer<OffHeapRangeMap>>of(
                map -> map.releaseBuffers(0, 2 * SECTOR), OffHeapRangeMap::release,
                map -> map.replace(0, 2 * SECTOR, AT, displaced::add))) {
            try (OffHeapRangeMap map = OffHeapRangeMap.create(4, SECTOR)) {
                ByteBuf gone = Unpooled.buffer().writeZero(SECTOR);
                map.insert(0, SECTOR, AT, gone);
                map.insert(SECTOR, SECTOR, AT, BUFFER);
                gone.release(2);
                assertThrows(IllegalReferenceCountException.class, () -> change.accept(map));
                assertEquals(1, BUFFER.refCnt());
            }
        }
        assertEquals(2, displaced.size());
    }

    @Test
    void aByteIsFoundWhereTheOrderOfTheWritesPutIt() {
        int[] found = new int[2];
        for (int first = 0; first < 2; first++) {
            try (OffHeapRangeMap map = OffHeapRangeMap.createUnaligned(4, SECTOR);
                    OffHeapRangeMap other = OffHeapRangeMap.createUnaligned(4, 2 * SECTOR);
                    OffHeapRangeMap whole = OffHeapRangeMap.create(4, SECTOR)) {
                map.insert(0, 4 * SECTOR, AT);
                map.insert(first == 0 ? 50 : 550, 50, new FileLocation(9, 0, 1, 0));
                map.insert(first == 0 ? 550 : 50, 50, new FileLocation(9, 0, 1, 0));
                found[first] = map.get(600).orElseThrow().location().offset();
                for (OffHeapRangeMap refusing : List.of(whole, other)) {
                    assertThrows(IllegalArgumentException.class, () -> map.copyTo(refusing));
                }
                for (Consumer<OffHeapRangeMap> cut : List.<Consumer<OffHeapRangeMap>>of(
                        it -> it.insert(0, 50, AT), it -> it.insert(50, SECTOR, AT),
                        it -> it.remove(1, SECTOR), it -> it.compareAndRelease(1, SECTOR, AT),
                        it -> it.redirect(0, 1, AT, AT))) {
                    assertThrows(IllegalArgumentException.class, () -> cut.accept(whole));
                }
                whole.copyTo(map);
            }
        }
        assertEquals(List.of(600, 608), List.of(found[0], found[1]));
    }

    @Test
    void rangesFarApartAreReadAndRemovedByOneCall() {
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR)) {
            ByteBuf bytes = PooledByteBufAllocator.DEFAULT.buffer().writeZero(SECTOR - 8)
                    .writeLong(7);
            map.insert(0, SECTOR, AT, bytes);
            bytes.release();
            map.insert(3L << 31, SECTOR, AT);
            map.insert(5L << 31, SECTOR, AT);
            assertEquals(3, map.ranges(-SECTOR, 1L << 40).size());
            ByteBuf rest = map.retainedBuffer(SECTOR - 8);
            assertEquals(SECTOR, map.remove(0, 6L << 30));
            assertEquals(2 * SECTOR, map.remove(-(1L << 62), Long.MAX_VALUE / SECTOR * SECTOR));
            assertTrue(map.isEmpty());
            assertEquals(3, map.size());
            assertEquals(7, rest.readLong());
            assertTrue(rest.release());
            assertNull(map.retainedBuffer(0));
        }
    }
}
