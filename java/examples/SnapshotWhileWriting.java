import java.io.IOException;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.skiplist.RangeBatch;

/**
 * Saves what a map holds at one moment while another thread goes on writing to it, and reads it
 * back a few ranges at a time.
 */
public final class SnapshotWhileWriting {
    private static final int SECTOR = 512;
    private static final int RANGES = 10_000;

    private SnapshotWhileWriting() {
    }

    /** Prints how many ranges the snapshot has, all of them older than it. */
    public static void main(String[] args) throws IOException, InterruptedException {
        Path file = Files.createTempFile("snapshot", ".map");
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR);
                OffHeapRangeMap snapshot = OffHeapRangeMap.create(12, SECTOR)) {
            write(map, 1);
            Thread writer = new Thread(() -> write(map, 2));
            // Nobody writes between the copy and the start of the writer.
            map.atomically(() -> {
                map.copyTo(snapshot);
                writer.start();
            });
            try (FileChannel out = FileChannel.open(file, StandardOpenOption.WRITE)) {
                snapshot.save(out);
            }
            writer.join();
        }
        try (FileChannel in = FileChannel.open(file); OffHeapRangeMap loaded = OffHeapRangeMap.load(in)) {
            RangeBatch batch = new RangeBatch(1000);
            long end = 2L * RANGES * SECTOR;
            int old = 0;
            long from = 0;
            boolean more;
            do {
                more = loaded.read(from, end - from, batch);
                for (int i = 0; i < batch.size(); i++) {
                    old += batch.majorVer(i) == 1 ? 1 : 0;
                }
                from = batch.size() == 0 ? end : batch.end();
            } while (more);
            System.out.println(old + " ranges of version 1 of " + loaded.size());
        } finally {
            Files.delete(file);
        }
    }

    private static void write(OffHeapRangeMap map, int version) {
        for (int i = 0; i < RANGES; i++) {
            map.insert(2L * i * SECTOR, SECTOR, new FileLocation(1, i * (SECTOR + 8), version, 0));
        }
    }
}
