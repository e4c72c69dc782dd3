package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.FutureTask;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/** Maps that several threads use, close or copy at once, and one that only a call still needs. */
@ExtendWith(LeakHunt.class)
class MapThreadsTest {
    private static final int THREADS = 4;
    private static final int ROUNDS = 50;
    private static final int LENGTH = 512;
    private static final FileLocation AT = new FileLocation(3, 0, 1, 0);

    @Test
    void threadsMayShareAMap() throws Exception {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, LENGTH)) {
            inThreads(THREADS, thread -> {
                for (int i = 0; i < 1000; i++) {
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
            assertEquals(THREADS * 2000, map.insertCount());
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
                    (thread % 2 == 0 ? a : b).copyTo(thread % 2 == 0 ? b : a);
                }
            });
            assertEquals(a.ranges(0, 4 * LENGTH), b.ranges(0, 4 * LENGTH));
        }
    }

    /** Two copies that wait for each other's second map would wait for ever. */
    @Test
    void aCopyThatWaitsForTheFirstOfTwoMapsDoesNotHoldTheOther() throws Exception {
        try (OffHeapRangeMap first = OffHeapRangeMap.create(4, LENGTH);
                OffHeapRangeMap second = OffHeapRangeMap.create(4, LENGTH)) {
            first.insert(0, LENGTH, AT);
            List<Blocked> threads = new ArrayList<>();
            first.forEach((o, l, n, f, major, minor, range) -> {
                Blocked copy = new Blocked(() -> second.copyTo(first));
                assertTrue(copy.waits());
                Blocked other = new Blocked(second::size);
                threads.addAll(List.of(copy, other));
                assertFalse(other.waits());
            });
            for (Blocked thread : threads) {
                thread.thread.join();
            }
        }
    }

    @Test
    void callsThatRaceWithCloseSucceedOrAreRefused() throws Exception {
        for (int round = 0; round < ROUNDS; round++) {
            ByteBuf buffer = Unpooled.wrappedBuffer(new byte[LENGTH]);
            OffHeapRangeMap map = OffHeapRangeMap.create(12, LENGTH);
            CountDownLatch working = new CountDownLatch(THREADS);
            List<FutureTask<String>> workers = new ArrayList<>();
            for (int thread = 0; thread < THREADS; thread++) {
                workers.add(InThread.start(() -> useUntilClosed(map, buffer, working)));
            }
            working.await();
            inThreads(2, thread -> map.close());
            for (FutureTask<String> worker : workers) {
                String refusal = InThread.join(worker);
                assertTrue(refusal.contains(": closed by thread "), refusal);
            }
            assertEquals(1, buffer.refCnt());
        }
    }

    private static String useUntilClosed(
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
    void queriesRunSideBySideAndAChangeThatWaitsComesBeforeThoseAfterIt() throws Exception {
        try (OffHeapRangeMap map = OffHeapRangeMap.create(4, LENGTH)) {
            map.insert(0, LENGTH, AT);
            List<Blocked> threads = new ArrayList<>();
            boolean[] interrupted = new boolean[1];
            int[] sizeSeenLater = new int[1];
            map.forEach((o, l, n, f, major, minor, range) -> {
                assertFalse(new Blocked(map::size).waits());
                Blocked change = new Blocked(() -> {
                    map.insert(2 * LENGTH, LENGTH, AT);
                    interrupted[0] = Thread.currentThread().isInterrupted();
                });
                assertTrue(change.waits());
                change.thread.interrupt();
                Blocked later = new Blocked(() -> sizeSeenLater[0] = map.size());
                assertTrue(later.waits());
                // The visitor itself waits for nobody.
                map.forEach(0, LENGTH, (o2, l2, n2, f2, major2, minor2, range2) ->
                        assertEquals(1, map.size()));
                threads.addAll(List.of(change, later));
            });
            for (Blocked thread : threads) {
                thread.thread.join();
            }
            assertTrue(interrupted[0]);
            assertEquals(2, sizeSeenLater[0]);
        }
    }

    @Test
    void closeWaitsForTheCallInProgress() throws Exception {
        OffHeapRangeMap map = OffHeapRangeMap.create(4, LENGTH);
        map.insert(0, LENGTH, AT);
        List<Blocked> closer = new ArrayList<>();
        map.forEach((o, l, n, f, major, minor, range) -> {
            closer.add(new Blocked(map::close));
            assertTrue(closer.get(0).waits());
            assertFalse(map.isClosed());
            assertFalse(range.isMemoryType());
        });
        closer.get(0).thread.join();
        assertTrue(map.isClosed());
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
        Visitor visitor = (o, l, n, f, major, minor, range) -> {
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

    /** A call on a thread of its own, which may have to wait for a lock. */
    private static final class Blocked {
        private final Thread thread;

        Blocked(Runnable call) {
            thread = new Thread(call);
            thread.start();
        }

        /** Tells whether it waits, when it either does or has ended. */
        boolean waits() {
            Thread.State state = thread.getState();
            while (state != Thread.State.WAITING && state != Thread.State.TERMINATED) {
                Thread.onSpinWait();
                state = thread.getState();
            }
            return state == Thread.State.WAITING;
        }
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
