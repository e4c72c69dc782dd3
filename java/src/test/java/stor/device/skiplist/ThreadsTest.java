package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.FutureTask;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/** Uses maps from several threads, as far as that is allowed. */
@ExtendWith(LeakHunt.class)
class ThreadsTest {
    private static final int THREADS = 4;
    private static final int OPERATIONS = 1_500;
    private static final int SHORT_LIVED_THREADS = 300;
    private static final long DEFAULT_LIMIT = 10L << 30;
    private static final long SWEEP_MILLIS = 5_000;
    private static final int NATIVE_BYTES_INDEX = 6;

    @AfterEach
    void restoreTheLimit() {
        JniSkipListNative.init(DEFAULT_LIMIT);
    }

    @Test
    void mapsOfDifferentThreadsDoNotDisturbEachOtherNorTheStatistics() throws Exception {
        long bytesBefore = sweptBytes();
        AtomicBoolean done = new AtomicBoolean();
        FutureTask<Long> observer = InThread.start(() -> {
            long calls = 0;
            while (!done.get()) {
                assertEquals(7, JniSkipListNative.getStats().length);
                JniSkipListNative.init(DEFAULT_LIMIT + calls % 2);
                calls++;
            }
            return calls;
        });
        List<FutureTask<Long>> workers = new ArrayList<>();
        for (int i = 0; i < THREADS; i++) {
            long seed = i;
            workers.add(InThread.start(() -> buffersLeftAfterRandomOperations(seed)));
        }
        ByteBuf buffer = Unpooled.buffer().writeZero(512);
        for (int i = 0; i < SHORT_LIVED_THREADS; i++) {
            InThread.call(() -> {
                long map = JniSkipListNative.createSkipList(4, 512);
                JniSkipListNative.insertWithBuff(map, 0, 512, 0, 1, 1, (byte) 1, buffer);
                JniSkipListNative.destorySkipList(map);
                return null;
            });
        }
        assertEquals(1, buffer.refCnt());
        for (FutureTask<Long> worker : workers) {
            assertEquals(0, InThread.join(worker));
        }
        done.set(true);
        InThread.join(observer);
        assertEquals(bytesBefore, sweptBytes());
    }

    @Test
    void aMapHandedFromThreadToThreadCallsBackInTheThreadThatHasIt() throws Exception {
        long map = InThread.call(() -> JniSkipListNative.createSkipList(8, 512));
        ByteBuf buffer = Unpooled.buffer().writeZero(512);
        for (int i = 0; i < THREADS; i++) {
            long start = 256L * i;
            InThread.call(() -> {
                // Cuts what the thread before stored, which is gone by now.
                JniSkipListNative.insertWithBuff(map, start, 512, 0, 1, 1, (byte) 1, buffer);
                return null;
            });
            assertEquals(i + 2, buffer.refCnt());
        }
        InThread.call(() -> JniSkipListNative.release(map));
        assertEquals(1, buffer.refCnt());
        JniSkipListNative.destorySkipList(map);
    }

    /** Gives the native bytes in use, as counted by a sweep that came after the call. */
    private static long sweptBytes() throws InterruptedException {
        // By then a sweep is due, unless one was made meanwhile.
        Thread.sleep(SWEEP_MILLIS + 1);
        return JniSkipListNative.getStats()[NATIVE_BYTES_INDEX];
    }

    private static long buffersLeftAfterRandomOperations(long seed) {
        RandomOperations maps = new RandomOperations(seed, 4, 512);
        try (maps) {
            for (int i = 0; i < OPERATIONS; i++) {
                maps.step();
            }
        }
        return maps.buffersInUse();
    }
}
