package stor.device.store;

import java.io.File;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.NoSuchFileException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReentrantReadWriteLock;
import java.util.stream.Stream;
import stor.device.skiplist.NativeMemory;
import stor.device.store.DeviceModel.Request;

/**
 * Everything at once: writers that check what they read, flushes, compactions and snapshots, among
 * interrupts, a disk that is full now and then, stores that are closed or die, and are opened again.
 */
public final class StoreStorm {
    private static final int WRITERS = 4;
    private static final int SECTORS_A_WRITER = 1500;
    private static final int WAIT_MILLIS = 300;
    private static final StoreSettings SETTINGS =
            new StoreSettings(DeviceModel.SECTOR, 128 << 10, 1 << 20, 1 << 20, 8);

    private static final Path HANDLES = Path.of("/proc/self/fd");
    /** What the JVM opens for itself in the course of time. */
    private static final int SLACK_HANDLES = 20;
    /** Lock, journal and reserve, and what the last flush has added. */
    private static final int SLACK_FILES = 12;

    private final Path folder;
    private final AtomicLong requests = new AtomicLong();
    private final AtomicLong interrupts = new AtomicLong();
    private final AtomicLong refusals = new AtomicLong();
    private final List<DeviceModel> models = new ArrayList<>();
    private final List<Thread> threads = new ArrayList<>();
    /** Held for writing while the store is opened or looked at. */
    private final ReentrantReadWriteLock opening = new ReentrantReadWriteLock();
    private FaultyDisk disk;
    private BlockStore store;
    private volatile boolean done;
    private volatile Throwable failure;
    private int reopenings;
    private int segments;

    private StoreStorm(Path folder) {
        this.folder = folder;
    }

    /**
     * Storms for some minutes, with a line for each.
     *
     * @param args the number of minutes, and what the random numbers begin with, 9 if not said
     */
    public static void main(String[] args) throws Exception {
        Path folder = Files.createTempDirectory("storm-");
        long handles = count(HANDLES);
        long seed = args.length > 1 ? Long.parseLong(args[1]) : 9;
        StoreStorm storm = run(folder, 60_000L * Long.parseLong(args[0]), seed);
        if (count(HANDLES) > handles + SLACK_HANDLES || count(folder) > storm.segments + SLACK_FILES) {
            throw new AssertionError("left behind: " + count(HANDLES) + " handles, "
                    + count(folder) + " files (expected: at most " + (handles + SLACK_HANDLES)
                    + ", " + (storm.segments + SLACK_FILES) + ")");
        }
        try (Disk left = new FolderDisk(folder)) {
            for (String name : left.names()) {
                left.delete(name);
            }
        }
        Files.delete(folder);
        System.out.println("verdict: no wrong byte, nothing left behind: " + storm);
    }

    /** Storms, and throws what went wrong. */
    static StoreStorm run(Path folder, long millis, long seed) throws Exception {
        StoreStorm storm = new StoreStorm(folder);
        storm.open();
        for (int i = 0; i < WRITERS; i++) {
            DeviceModel model = new DeviceModel(i * SECTORS_A_WRITER, SECTORS_A_WRITER);
            storm.models.add(model);
            Random random = new Random(seed << Integer.SIZE | i);
            storm.start(() -> storm.request(model, random));
        }
        storm.start(() -> storm.store.flush());
        storm.start(() -> storm.store.compact());
        storm.start(storm::readSnapshot);
        try {
            storm.disturb(millis, new Random(seed));
            storm.segments = storm.store.stats().segments();
        } finally {
            storm.done = true;
            for (Thread thread : storm.threads) {
                thread.join();
            }
            storm.close();
            requireNoneOpen(folder);
        }
        if (storm.failure != null) {
            throw new AssertionError("after " + storm, storm.failure);
        }
        return storm;
    }

    @Override
    public String toString() {
        return String.format("%,d requests, %,d interrupts, %,d refusals, %d reopenings",
                requests.get(), interrupts.get(), refusals.get(), reopenings);
    }

    long requests() {
        return requests.get();
    }

    // --- What goes on ----------------------------------------------------------------------------

    /** Something to do again and again. */
    private interface Work {
        void run() throws IOException;
    }

    private void start(Work work) {
        Thread thread = new Thread(() -> {
            while (!done) {
                opening.readLock().lock();
                try {
                    work.run();
                } catch (IOException e) {
                    refusals.incrementAndGet();
                    if (!disk.hasRefused()) {
                        fail(e);
                    }
                } catch (OutOfMemoryError e) {
                    refusals.incrementAndGet();
                } catch (IllegalStateException e) {
                    if (!e.getMessage().contains("closed")) {
                        fail(e);
                    }
                } catch (RuntimeException | AssertionError e) {
                    fail(e);
                } finally {
                    opening.readLock().unlock();
                }
                interrupts.addAndGet(Thread.interrupted() ? 1 : 0);
            }
        });
        threads.add(thread);
        thread.start();
    }

    private synchronized void fail(Throwable what) {
        if (failure == null) {
            failure = what;
        }
        done = true;
    }

    private void request(DeviceModel model, Random random) throws IOException {
        long id = requests.incrementAndGet();
        int kind = random.nextInt(40);
        if (kind == 0) {
            store.flush();
            model.noteFlushed();
        } else if (kind < 20) {
            int sector = random.nextInt(SECTORS_A_WRITER - 8);
            model.check(store::read, sector, 8);
        } else {
            model.serve(store, Request.draw(random, SECTORS_A_WRITER, id));
        }
    }

    private void readSnapshot() throws IOException {
        int length = WRITERS * SECTORS_A_WRITER * DeviceModel.SECTOR;
        try (Snapshot snapshot = store.snapshot()) {
            byte[] first = snapshot.read(0, length);
            Thread.yield();
            if (!Arrays.equals(first, snapshot.read(0, length))) {
                throw new AssertionError("a snapshot has changed");
            }
        }
    }

    // --- What disturbs it ------------------------------------------------------------------------

    private void disturb(long millis, Random random) throws Exception {
        long start = System.nanoTime();
        long minute = 1;
        while (!done && (System.nanoTime() - start) / 1_000_000 < millis) {
            for (int i = 0; i < 20; i++) {
                threads.get(random.nextInt(threads.size())).interrupt();
                Thread.sleep(random.nextInt(WAIT_MILLIS / 20));
            }
            switch (random.nextInt(4)) {
                case 0 -> disk.setCapacity(disk.used() + random.nextInt(1 << 20));
                case 1 -> disk.setCapacity(Long.MAX_VALUE);
                case 2 -> disk.die(1 + random.nextInt(50));
                default -> { }
            }
            Thread.sleep(random.nextInt(WAIT_MILLIS));
            if (random.nextInt(4) == 0 || disk.hasFailed()) {
                reopen();
            }
            if ((System.nanoTime() - start) / 60_000_000_000L >= minute) {
                report(minute++);
            }
        }
    }

    /** Closes while all else goes on. */
    private void reopen() throws IOException {
        disk.setCapacity(Long.MAX_VALUE);
        close();
        opening.writeLock().lock();
        try {
            requireNoneOpen(folder);
            open();
            reopenings++;
            for (DeviceModel model : models) {
                model.checkAfterCrash(store::read);
            }
        } finally {
            opening.writeLock().unlock();
        }
    }

    private void open() throws IOException {
        disk = new FaultyDisk(new FolderDisk(folder));
        store = BlockStore.open(disk, SETTINGS);
    }

    private void close() throws IOException {
        try {
            store.close();
        } catch (IOException e) {
            if (!disk.hasRefused()) {
                throw e;
            }
        }
    }

    /** Prints what is held, in the same state each time. */
    private void report(long minute) throws IOException {
        opening.writeLock().lock();
        try {
            disk.setCapacity(Long.MAX_VALUE);
            if (!disk.hasFailed()) {
                disk.die(Long.MAX_VALUE);
                store.flush();
                store.defragment();
            }
            System.gc();
            StoreStats stats = store.stats();
            System.out.printf("%3d: %s; %,d bytes in %d segments, journal %,d, %d handles, %s, %,d"
                    + " native bytes%n", minute, this, stats.fileBytes(), stats.segments(),
                    stats.journalBytes(), count(HANDLES), resident(),
                    NativeMemory.bytesInUse());
        } finally {
            opening.writeLock().unlock();
        }
    }

    /** Looks for handles that a closed store has left open. */
    static void requireNoneOpen(Path folder) throws IOException {
        for (File handle : HANDLES.toFile().listFiles()) {
            try {
                Path file = Files.readSymbolicLink(handle.toPath());
                if (file.startsWith(folder)) {
                    throw new AssertionError("left open: " + file);
                }
            } catch (NoSuchFileException e) {
                // That with which the handles were listed, or another's.
            }
        }
    }

    private static long count(Path folder) throws IOException {
        try (Stream<Path> files = Files.list(folder)) {
            return files.count();
        }
    }

    private static String resident() throws IOException {
        return Files.readAllLines(Path.of("/proc/self/status")).stream()
                .filter(line -> line.startsWith("VmRSS")).findFirst().orElseThrow()
                .replaceAll("\\s+", " ");
    }
}
