package stor.device.replay;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.LongBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.List;

/**
 * A long row of numbers outside the heap: in a mapped file, so that the system may move to the disk
 * what does not fit memory. The file has no name from the start, so nothing is left of it however
 * the process ends. All numbers are 0 at first. Not safe for use by several threads.
 */
final class LongFile implements AutoCloseable {
    private static final int CHUNK_BITS = 17;
    private static final int CHUNK_LONGS = 1 << CHUNK_BITS;
    private static final int CHUNK_BYTES = CHUNK_LONGS * Long.BYTES;

    private final FileChannel file;
    private final List<LongBuffer> chunks = new ArrayList<>();
    private final ByteBuffer zeros = ByteBuffer.allocateDirect(1 << 16);

    LongFile(Path folder) throws IOException {
        Path path = Files.createTempFile(folder, "numbers-", "");
        // On Linux it is deleted as soon as it is open.
        file = FileChannel.open(path, StandardOpenOption.READ, StandardOpenOption.WRITE,
                StandardOpenOption.DELETE_ON_CLOSE);
    }

    /** Makes room for as many numbers. */
    void grow(long count) throws IOException {
        while ((long) chunks.size() * CHUNK_LONGS < count) {
            long start = (long) chunks.size() * CHUNK_BYTES;
            // Written, not just promised: a full disk is found here and not in the mapped memory.
            for (long at = start; at < start + CHUNK_BYTES;) {
                zeros.clear();
                at += file.write(zeros, at);
            }
            chunks.add(file.map(FileChannel.MapMode.READ_WRITE, start, CHUNK_BYTES)
                    .order(ByteOrder.nativeOrder()).asLongBuffer());
        }
    }

    long get(long index) {
        return chunks.get((int) (index >>> CHUNK_BITS)).get((int) index & CHUNK_LONGS - 1);
    }

    void set(long index, long value) {
        chunks.get((int) (index >>> CHUNK_BITS)).put((int) index & CHUNK_LONGS - 1, value);
    }

    /** Lets the file go; its memory follows with the next garbage collection. */
    @Override
    public void close() throws IOException {
        file.close();
        chunks.clear();
    }
}
