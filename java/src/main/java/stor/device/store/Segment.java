package stor.device.store;

import java.io.EOFException;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.FileChannel;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;

/**
 * One file of the log. Written once, front to back, by one {@link SegmentWriter}; read by anyone.
 * When it may go is decided by {@link SegmentFiles}, which also guards the fields that say so.
 */
final class Segment {
    final int number;
    final int generation;
    private final Path path;
    private final FileChannel file;

    // Guarded by SegmentFiles.
    int pins;
    long bytes;
    boolean sealed;
    boolean retired;

    /** Makes an empty file, in the place of one of that name. */
    Segment(Path folder, int number, int generation) throws IOException {
        this.number = number;
        this.generation = generation;
        path = folder.resolve(String.format("segment-%06d", SegmentFiles.id(number, generation)));
        file = FileChannel.open(path, StandardOpenOption.CREATE, StandardOpenOption.READ,
                StandardOpenOption.WRITE, StandardOpenOption.TRUNCATE_EXISTING);
    }

    long id() {
        return SegmentFiles.id(number, generation);
    }

    void write(ByteBuffer frames, int position) throws IOException {
        for (int at = position; frames.hasRemaining();) {
            at += file.write(frames, at);
        }
    }

    ByteBuffer read(int position, int length) throws IOException {
        ByteBuffer frames = ByteBuffer.allocate(length);
        while (frames.hasRemaining()) {
            if (file.read(frames, position + (long) frames.position()) < 0) {
                throw new EOFException(this + ": ends before " + (position + (long) length));
            }
        }
        return frames.flip();
    }

    void delete() throws IOException {
        file.close();
        Files.deleteIfExists(path);
    }

    @Override
    public String toString() {
        return "segment " + number + ", generation " + generation;
    }
}
