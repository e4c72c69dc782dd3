package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.Random;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.stream.Stream;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Ends JVMs while daemon threads are inside the library, at a different moment each. */
class ProcessExitTest {
    private static final int EXITS = Integer.getInteger("skiplist.test.exits", 15);
    private static final long PATIENCE_SECONDS = 120;
    private static final int FIRST_STATUS = 10;

    @TempDir
    private Path folder;

    /** Uses the library from daemon threads in the child JVM, and ends it. */
    public static final class Busy {
        private static final int THREADS = 5;
        private static final int LATEST_MILLIS = 100;
        private static final int MANY = 20_000;

        private Busy() {
        }

        /** Ends the JVM with the given status when every thread works. */
        public static void main(String[] args) throws InterruptedException {
            int status = Integer.parseInt(args[0]);
            Random random = new Random(status);
            CountDownLatch busy = new CountDownLatch(THREADS);
            forever(busy, () -> useBuffers(1));
            forever(busy, () -> useBuffers(2));
            long large = largeMap();
            forever(busy, () -> copy(large));
            forever(busy, () -> {
                JniSkipListNative.getStats();
                JniSkipListNative.init(Long.MAX_VALUE - random.nextInt(2));
            });
            forever(busy, () -> {
                Thread thread = daemon(() -> useBuffers(3));
                try {
                    thread.join();
                } catch (InterruptedException e) {
                    throw new IllegalStateException(e);
                }
            });
            busy.await();
            Thread.sleep(random.nextInt(LATEST_MILLIS));
            System.exit(status);
        }

        private static void forever(CountDownLatch begun, Runnable work) {
            daemon(() -> {
                begun.countDown();
                while (true) {
                    work.run();
                }
            });
        }

        private static Thread daemon(Runnable work) {
            Thread thread = new Thread(work);
            thread.setDaemon(true);
            thread.start();
            return thread;
        }

        /** Makes, cuts, copies and drops buffered ranges, which calls Java again and again. */
        private static void useBuffers(long seed) {
            Random random = new Random(seed);
            ByteBuf buffer = Unpooled.directBuffer().writeZero(512);
            long map = JniSkipListNative.createSkipList(6, 512);
            long copy = JniSkipListNative.createSkipList(6, 512);
            for (int i = 0; i < 500; i++) {
                JniSkipListNative.insertWithBuff(
                        map, random.nextInt(1 << 16), 512, 0, 1, i, (byte) 1, buffer);
            }
            // So that the copy calls back in this thread as well.
            JniSkipListNative.insert(copy, 0, 512, 0, 1, 1, (byte) 1);
            JniSkipListNative.copySkipList(map, copy);
            JniSkipListNative.release(map);
            JniSkipListNative.destorySkipList(map);
            JniSkipListNative.destorySkipList(copy);
            buffer.release();
        }

        private static long largeMap() {
            long map = JniSkipListNative.createSkipList(12, 512);
            for (int i = 0; i < MANY; i++) {
                JniSkipListNative.insert(map, 16L * i, 8, 0, 1, i, (byte) 1);
            }
            return map;
        }

        /**
         * Spends about a second in a call that does not call Java: a map of one level is searched
         * range by range. While the process ends, the JVM waits 300 milliseconds for such calls
         * and then lets them run on.
         */
        private static void copy(long map) {
            long copy = JniSkipListNative.createSkipList(1, 512);
            JniSkipListNative.copySkipList(map, copy);
            JniSkipListNative.destorySkipList(copy);
        }
    }

    @Test
    void aProcessEndsAsAskedWhileDaemonThreadsAreInsideTheLibrary() throws Exception {
        for (int i = 0; i < EXITS; i++) {
            int status = FIRST_STATUS + i % 100;
            assertEquals("", output(status), "exit " + i);
            try (Stream<Path> left = Files.list(folder)) {
                assertEquals(List.of(), left.toList(), "exit " + i);
            }
        }
    }

    private String output(int status) throws IOException, InterruptedException {
        Process jvm = StrictJvm.start(List.of(
                "-XX:ErrorFile=" + folder.resolve("hs_err.log"), "-XX:-CreateCoredumpOnCrash",
                "-cp", System.getProperty("java.class.path"), Busy.class.getName(),
                Integer.toString(status)));
        try {
            assertTrue(jvm.waitFor(PATIENCE_SECONDS, TimeUnit.SECONDS), "does not end");
            String output = new String(jvm.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
            assertEquals(status, jvm.exitValue(), output);
            return output;
        } finally {
            jvm.destroyForcibly();
        }
    }
}
