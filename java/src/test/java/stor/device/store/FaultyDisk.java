package stor.device.store;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.NoSuchFileException;
import java.util.List;
import java.util.Random;

/** A disk that fails when it is told to, in the middle of what it does, and that may be full. */
final class FaultyDisk implements Disk {
    private final Disk disk;
    private final Random random = new Random(5);
    private volatile long capacity = Long.MAX_VALUE;
    private long first = Long.MAX_VALUE;
    private long last;
    private long death = Long.MAX_VALUE;
    private volatile boolean refused;
    private long steps;
    private volatile Runnable onRead = () -> { };

    FaultyDisk(Disk disk) {
        this.disk = disk;
    }

    /** Fails some of the steps to come, the next one being 1; some of them happen all the same. */
    synchronized void fail(long from, long to) {
        steps = 0;
        first = from;
        last = to;
    }

    /** Does nothing any more from a step on, but perhaps that one. */
    synchronized void die(long from) {
        steps = 0;
        death = from;
    }

    synchronized boolean hasFailed() {
        return steps >= Math.min(first, death);
    }

    /** Tells whether it was ever full or has ever failed. */
    boolean hasRefused() {
        return refused;
    }

    /** Has something done at the next read, before it. */
    void onNextRead(Runnable action) {
        onRead = () -> {
            onRead = () -> { };
            action.run();
        };
    }

    void setCapacity(long bytes) {
        capacity = bytes;
    }

    long used() throws IOException {
        long sum = 0;
        for (String name : disk.names()) {
            try {
                sum += disk.size(name);
            } catch (NoSuchFileException e) {
                // Deleted meanwhile.
            }
        }
        return sum;
    }

    /** Something to do. */
    private interface Work {
        void run() throws IOException;
    }

    /** Does the work or fails, and then may have done it, or a part. */
    private synchronized void step(Work work, Work part) throws IOException {
        steps++;
        if (steps < death && (steps < first || steps > last)) {
            work.run();
            return;
        }
        if (steps <= death) {
            (random.nextBoolean() ? work : part).run();
        }
        refused = true;
        throw new IOException("injected at step " + steps);
    }

    private void step(Work work) throws IOException {
        step(work, () -> { });
    }

    @Override
    public List<String> names() throws IOException {
        return disk.names();
    }

    @Override
    public long size(String name) throws IOException {
        return disk.size(name);
    }

    @Override
    public DiskFile create(String name) throws IOException {
        DiskFile[] file = new DiskFile[1];
        try {
            step(() -> file[0] = disk.create(name));
        } catch (IOException e) {
            if (file[0] != null) {
                file[0].close();
            }
            throw e;
        }
        return new FaultyFile(file[0]);
    }

    @Override
    public DiskFile open(String name) throws IOException {
        return new FaultyFile(disk.open(name));
    }

    @Override
    public void rename(String from, String to) throws IOException {
        step(() -> disk.rename(from, to));
    }

    @Override
    public void delete(String name) throws IOException {
        step(() -> disk.delete(name));
    }

    @Override
    public void forceNames() throws IOException {
        step(disk::forceNames);
    }

    @Override
    public void close() throws IOException {
        disk.close();
    }

    private final class FaultyFile implements DiskFile {
        private final DiskFile file;

        FaultyFile(DiskFile file) {
            this.file = file;
        }

        @Override
        public void write(ByteBuffer bytes, long position) throws IOException {
            int fits = fits(bytes.remaining(), position);
            int part = random.nextInt(bytes.remaining() + 1);
            step(() -> write(bytes, fits, position),
                    () -> write(bytes, Math.min(part, fits), position));
            if (bytes.hasRemaining()) {
                refused = true;
                throw new IOException("No space left on device");
            }
        }

        private int fits(int length, long position) throws IOException {
            if (capacity == Long.MAX_VALUE) {
                return length;
            }
            long within = Math.max(0, file.size() - position);
            return (int) Math.min(length, within + Math.max(0, capacity - used()));
        }

        private void write(ByteBuffer bytes, int length, long position) throws IOException {
            int limit = bytes.limit();
            file.write(bytes.limit(bytes.position() + length), position);
            bytes.limit(limit);
        }

        @Override
        public void read(ByteBuffer bytes, long position) throws IOException {
            onRead.run();
            file.read(bytes, position);
        }

        @Override
        public long size() throws IOException {
            return file.size();
        }

        @Override
        public void truncate(long size) throws IOException {
            step(() -> file.truncate(size));
        }

        @Override
        public void force() throws IOException {
            step(file::force);
        }

        @Override
        public void close() throws IOException {
            file.close();
        }
    }
}
