package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.FutureTask;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/** Uses maps from several threads, as far as that is allowed. */
@ExtendWith(LeakHunt.class)
class ThreadsTest {
    private static final int THREADS = 4;
    private static final int OPERATIONS = 1_500;

    @Test
    void mapsOfDifferentThreadsDoNotDisturbEachOtherNorTheStatistics() throws Exception {
        AtomicBoolean done = new AtomicBoolean();
        FutureTask<Long> observer = InThread.start(() -> {
            long calls = 0;
            while (!done.get()) {
                assertEquals(7, JniSkipListNative.getStats().length);
                calls++;
            }
            return calls;
        });
        List<FutureTask<Long>> workers = new ArrayList<>();
        for (int i = 0; i < THREADS; i++) {
            long seed = i;
            workers.add(InThread.start(() -> buffersLeftAfterRandomOperations(seed)));
        }
        for (FutureTask<Long> worker : workers) {
            assertEquals(0, InThread.join(worker));
        }
        done.set(true);
        InThread.join(observer);
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
