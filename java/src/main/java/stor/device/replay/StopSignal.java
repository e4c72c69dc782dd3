package stor.device.replay;

import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/** Turns Ctrl-C into a request to stop, and keeps the JVM alive until that is done. */
final class StopSignal implements AutoCloseable {
    private static final int PATIENCE_SECONDS = 30;

    private final CountDownLatch done = new CountDownLatch(1);
    private final Thread hook = new Thread(this::stop, "stop signal");
    private volatile boolean requested;

    StopSignal() {
        Runtime.getRuntime().addShutdownHook(hook);
    }

    boolean isRequested() {
        return requested;
    }

    /** Lets the JVM go. */
    @Override
    public void close() {
        done.countDown();
        if (!requested) {
            try {
                Runtime.getRuntime().removeShutdownHook(hook);
            } catch (IllegalStateException e) {
                // The JVM is on its way down, and the hook has nothing left to wait for.
                requested = true;
            }
        }
    }

    private void stop() {
        requested = true;
        try {
            if (!done.await(PATIENCE_SECONDS, TimeUnit.SECONDS)) {
                System.err.println("replay: did not stop in " + PATIENCE_SECONDS + " s");
            }
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }
}
