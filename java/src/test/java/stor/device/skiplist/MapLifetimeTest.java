package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.PooledByteBufAllocator;
import io.netty.buffer.Unpooled;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.FutureTask;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.CsvSource;

/** The end of maps: closed under running calls, collected under them, or lost. */
@ExtendWith(LeakHunt.class)
class MapLifetimeTest {
    private static final int THREADS = 4;
    private static final int ROUNDS = 50;
    private static final int LENGTH = 512;
    private static final FileLocation AT = new FileLocation(3, 0, 1, 0);

    /** Loses a map in a JVM of its own, and waits until its buffer has been given back. */
    public static final class Loser {
        private Loser() {
        }

        /** Prints the warnings of the leak to the error stream. */
        public static void main(String[] args) throws InterruptedException {
            ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
            loseAMap(buffer);
            while (buffer.refCnt() > 1) {
                System.gc();
                Thread.sleep(1);
            }
            // The warning follows at once, on a daemon thread that would end with this one.
            Thread.sleep(200);
            System.out.println("given back");
        }

        private static void loseAMap(ByteBuf buffer) {
            OffHeapRangeMap.create(4, LENGTH).insert(0, LENGTH, AT, buffer);
        }
    }

    /** Loses a buffer that a map once took, in a JVM of its own, until Netty reports it. */
    public static final class BufferLoser {
        private BufferLoser() {
        }

        /** Prints Netty's report to the error stream. */
        public static void main(String[] args) throws InterruptedException {
            storeABuffer();
            // Netty keeps a slice for reuse, and with it the buffer that it was cut from.
            storeABuffer().release();
            LeakHunt.hunt();
        }

        private static ByteBuf storeABuffer() {
            ByteBuf buffer = PooledByteBufAllocator.DEFAULT.buffer().writeZero(LENGTH);
            try (OffHeapRangeMap map = OffHeapRangeMap.create(4, LENGTH)) {
                map.insert(0, LENGTH, AT, buffer);
            }
            return buffer;
        }
    }

    @Test
    void nettysReportOnALostBufferNamesTheMapThatTookIt() throws Exception {
        String output = output("-Dio.netty.leakDetection.level=paranoid",
                "-cp", System.getProperty("java.class.path"), BufferLoser.class.getName());
        assertTrue(output.contains("LEAK: ByteBuf.release() was not called")
                && output.contains("Hint: OffHeapRangeMap#1"), output);
    }

    @Test
    void threadsMayShareAMap() throws Exception {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, LENGTH)) {
            inThreads(THREADS, thread -> {
                for (int i = 0; i < 2000; i++) {
                    long offset = (long) LENGTH * ((i * 31 + thread * 7) % 64);
                    map.insert(offset, LENGTH, AT, buffer);
                    map.insert(offset + LENGTH, LENGTH, AT);
                    map.forEach(offset, LENGTH, (o, l, n, f, major, minor, range) ->
                            assertTrue(range.buffer() == null
                                    || range.buffer().readableBytes() == l));
                    map.compareAndRelease(offset, LENGTH, AT);
                }
            });
            map.checkInvariants();
            assertEquals(THREADS * 4000, map.insertCount());
        }
        assertEquals(1, buffer.refCnt());
    }

    @Test
    void twoMapsMayBeCopiedIntoEachOther() throws Exception {
        try (OffHeapRangeMap a = OffHeapRangeMap.create(4, LENGTH);
                OffHeapRangeMap b = OffHeapRangeMap.create(4, LENGTH)) {
            a.insert(0, LENGTH, AT);
            b.insert(2 * LENGTH, LENGTH, AT);
            inThreads(THREADS, thread -> {
                for (int i = 0; i < 2000; i++) {
                    if (thread % 2 == 0) {
                        a.copyTo(b);
                    } else {
                        b.copyTo(a);
                    }
                }
            });
            assertEquals(a.ranges(0, 4 * LENGTH), b.ranges(0, 4 * LENGTH));
        }
    }

    @Test
    void callsThatRaceWithCloseSucceedOrAreRefused() throws Exception {
        for (int round = 0; round < ROUNDS; round++) {
            ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
            OffHeapRangeMap map = OffHeapRangeMap.create(12, LENGTH);
            CountDownLatch working = new CountDownLatch(THREADS);
            List<FutureTask<Object>> workers = new ArrayList<>();
            for (int thread = 0; thread < THREADS; thread++) {
                workers.add(InThread.start(() -> useUntilClosed(map, buffer, working)));
            }
            working.await();
            inThreads(2, thread -> map.close());
            for (FutureTask<Object> worker : workers) {
                String refusal = (String) InThread.join(worker);
                assertTrue(refusal.contains(": closed by thread "), refusal);
            }
            assertEquals(1, buffer.refCnt());
        }
    }

    private static Object useUntilClosed(
            OffHeapRangeMap map, ByteBuf buffer, CountDownLatch working) {
        try {
            for (int i = 0;; i++) {
                map.insert(i * 2L * LENGTH, LENGTH, AT, buffer);
                map.ranges(0, LENGTH);
                working.countDown();
            }
        } catch (IllegalStateException e) {
            return e.getMessage();
        }
    }

    @Test
    void closeWaitsForTheCallInProgress() throws Exception {
        OffHeapRangeMap map = OffHeapRangeMap.create(4, LENGTH);
        map.insert(0, LENGTH, AT);
        List<FutureTask<Object>> closer = new ArrayList<>();
        map.forEach((o, l, n, f, major, minor, range) -> {
            Thread[] thread = new Thread[1];
            CountDownLatch started = new CountDownLatch(1);
            closer.add(InThread.start(() -> {
                thread[0] = Thread.currentThread();
                started.countDown();
                map.close();
                return null;
            }));
            awaitBlocked(started, thread);
            assertFalse(map.isClosed());
            assertFalse(range.isMemoryType());
        });
        InThread.join(closer.get(0));
        assertTrue(map.isClosed());
    }

    private static void awaitBlocked(CountDownLatch started, Thread[] thread) {
        try {
            started.await();
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
        while (thread[0].getState() != Thread.State.WAITING) {
            Thread.onSpinWait();
        }
    }

    @Test
    void aMapThatOnlyARunningCallStillNeedsIsNotFreedUnderIt() {
        // Compiled first: the interpreter keeps what compiled code forgets after its last use.
        for (int i = 0; i < 20_000; i++) {
            visitAnUnreachableMap(false);
        }
        for (int i = 0; i < 10; i++) {
            assertEquals(2, visitAnUnreachableMap(true));
        }
    }

    private static int visitAnUnreachableMap(boolean collect) {
        int[] visits = new int[1];
        OffHeapRangeMap.Visitor visitor = (o, l, n, f, major, minor, range) -> {
            if (collect) {
                System.gc();
                // Time for the cleaner, had it a map to free.
                Thread.yield();
            }
            assertEquals(1, major);
            visits[0]++;
        };
        // Not closed if it collects: then nothing but the call itself keeps the map.
        OffHeapRangeMap map = OffHeapRangeMap.create(4, LENGTH);
        map.insert(0, LENGTH, AT);
        map.insert(2 * LENGTH, LENGTH, AT);
        if (collect) {
            map.forEach(visitor);
        } else {
            map.forEach(visitor);
            map.close();
        }
        return visits[0];
    }

    @ParameterizedTest
    @CsvSource({"always, true, true", "sampled, true, true", "off, false, false",
            "frequently, true, true"})
    void aLostMapIsFreedAndReported(String level, boolean reported, boolean sited)
            throws Exception {
        String output = output("-Dskiplist.leakDetection=" + level,
                "-cp", System.getProperty("java.class.path"), Loser.class.getName());
        assertTrue(output.contains("given back"), output);
        assertEquals(
                reported, output.contains("OffHeapRangeMap#1 was never closed"), output);
        assertEquals(sited, output.contains("loseAMap"), output);
        assertEquals(level.equals("frequently"), output.contains(
                "skiplist.leakDetection: frequently (expected: off, sampled or always)"), output);
    }

    private static String output(String... args) throws Exception {
        Process jvm = StrictJvm.start(List.of(args));
        String output = new String(jvm.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, jvm.waitFor(), output);
        return output;
    }

    /** What a thread does. */
    private interface Body {
        void run(int thread);
    }

    private static void inThreads(int count, Body body) throws Exception {
        List<FutureTask<Object>> tasks = new ArrayList<>();
        for (int i = 0; i < count; i++) {
            int thread = i;
            tasks.add(InThread.start(() -> {
                body.run(thread);
                return null;
            }));
        }
        for (FutureTask<Object> task : tasks) {
            InThread.join(task);
        }
    }
}
