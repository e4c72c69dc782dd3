package stor.device.store;

import java.io.Closeable;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.util.List;

/**
 * The folder of a store, and all that a store asks of it: so little that a test can put a disk
 * below which fills up, fails or loses power.
 *
 * <p>Nothing is promised to be there after a power cut but what was forced: the bytes and the
 * length of a file by {@link DiskFile#force}, names by {@link #forceNames}. What was not forced may
 * be there all the same, in part, and in any order. Any thread may call any method; an interrupt
 * disturbs none of them.
 */
interface Disk extends Closeable {
    List<String> names() throws IOException;

    long size(String name) throws IOException;

    /** Makes an empty file, in the place of one of that name. */
    DiskFile create(String name) throws IOException;

    DiskFile open(String name) throws IOException;

    /** Gives a file another name, in one step, in the place of a file that has that name. */
    void rename(String from, String to) throws IOException;

    /** Deletes a file, if it is there. */
    void delete(String name) throws IOException;

    /** Makes all creations, renames and deletions so far last. */
    void forceNames() throws IOException;

    /** An open file. */
    interface DiskFile extends Closeable {
        /** Writes all of a buffer. */
        void write(ByteBuffer bytes, long position) throws IOException;

        /** Fills a buffer; a file that ends before is an {@link java.io.EOFException}. */
        void read(ByteBuffer bytes, long position) throws IOException;

        long size() throws IOException;

        void truncate(long size) throws IOException;

        /** Makes all that was written so far last. */
        void force() throws IOException;
    }
}
