package stor.device.store;

import java.io.Closeable;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.file.Path;
import java.util.HashSet;
import java.util.Set;

/**
 * Keeps a folder for one store: by a lock on a file that has the process id, which the system lets
 * go when the process ends, however it ends; and within the process by a list of folders, since
 * there such a lock holds nobody off and would be lost with the first file closed.
 */
final class FolderLock implements Closeable {
    static final String NAME = "lock";

    private static final Set<Path> TAKEN = new HashSet<>();

    private final Path folder;
    private final RandomAccessFile file;

    private FolderLock(Path folder, RandomAccessFile file) {
        this.folder = folder;
        this.file = file;
    }

    /** Takes a folder that exists, or says who has it. */
    static FolderLock take(Path folder) throws IOException {
        Path real = folder.toRealPath();
        synchronized (TAKEN) {
            if (!TAKEN.add(real)) {
                throw inUse(real, Long.toString(ProcessHandle.current().pid()));
            }
        }
        try {
            return lock(real);
        } catch (IOException | RuntimeException | Error e) {
            forget(real);
            throw e;
        }
    }

    private static FolderLock lock(Path folder) throws IOException {
        RandomAccessFile file = new RandomAccessFile(folder.resolve(NAME).toFile(), "rw");
        try {
            if (file.getChannel().tryLock() == null) {
                throw inUse(folder, file.readLine());
            }
            file.setLength(0);
            file.writeBytes(ProcessHandle.current().pid() + "\n");
            return new FolderLock(folder, file);
        } catch (IOException | RuntimeException | Error e) {
            file.close();
            throw e;
        }
    }

    /** The file stays: another process may be about to lock it. */
    @Override
    public void close() throws IOException {
        file.close();
        forget(folder);
    }

    private static void forget(Path folder) {
        synchronized (TAKEN) {
            TAKEN.remove(folder);
        }
    }

    private static IOException inUse(Path folder, String process) {
        return new IOException(
                folder + ": in use by process " + process + " (expected: a folder for this store)");
    }
}
