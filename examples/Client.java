// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

package android.kus.example;

import android.hardware.usb.UsbConfiguration;
import android.hardware.usb.UsbDevice;
import android.hardware.usb.UsbInterface;
import android.kus.DeviceInfo;
import android.kus.IKUsbService;
import android.kus.IKUsbServiceCallback;
import android.os.IBinder;
import android.os.RemoteException;
import android.os.ServiceManager;
import android.util.Log;
import android.view.InputDevice;
import java.util.Arrays;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.ThreadPoolExecutor;
import java.util.concurrent.TimeUnit;

/**
 * A client of the daemon in code of the platform, to begin one's own with (docs/integration.md):
 * has attached devices judged, hears what was judged, and goes on with a daemon that was started
 * anew.
 *
 * <p>Any thread may call it, and no call waits. It talks to the daemon on a thread of its own, and
 * calls its listener there.
 */
public final class Client {
    /** What the owner of this client is told. */
    public interface Listener {
        /**
         * May this attached device be used? No answer of the daemon is a refusal, and until there
         * is a daemon to answer nothing is told: a device without a verdict may not be used. Comes
         * again with each daemon that is started anew.
         */
        void onVerdict(DeviceInfo device, boolean allowed);

        /** A USB device was judged, whoever asked; status and reason hold the verdict. */
        void onAdded(DeviceInfo device);

        /** A USB device has gone. The record is its reporter's. */
        void onRemoved(DeviceInfo device);
    }

    private static final String TAG = "KusExampleClient";
    private static final String SERVICE_NAME = "kusbservice";

    private static final int TYPE_USB = 0;
    private static final int TYPE_INPUT = 1;
    private static final int STATUS_REMOVED = 0;

    // For calls that take their time: a decision waits until all clients have been told of it. What
    // comes after its end is dropped: a change that was under way is told even then.
    private final ExecutorService mWorker = new ThreadPoolExecutor(1, 1, 0, TimeUnit.SECONDS,
            new LinkedBlockingQueue<>(), new ThreadPoolExecutor.DiscardPolicy());
    private final Listener mListener;

    // The rest is the worker's.
    private final Map<String, DeviceInfo> mAttached = new LinkedHashMap<>();
    private IBinder mBinder;
    private IKUsbService mService;

    // Comes on a binder thread, or on the very thread that waits for an answer of the daemon. The
    // daemon waits for its end, and whoever had the device judged waits with it: pass it on.
    private final IKUsbServiceCallback mCallback = new IKUsbServiceCallback.Stub() {
        @Override
        public void onDeviceAdded(DeviceInfo device) {
            mWorker.execute(() -> mListener.onAdded(device));
        }

        @Override
        public void onDeviceRemoved(DeviceInfo device) {
            mWorker.execute(() -> mListener.onRemoved(device));
        }

        @Override
        public int getInterfaceVersion() {
            return IKUsbServiceCallback.VERSION;
        }
    };

    private final IBinder.DeathRecipient mDeath = () -> mWorker.execute(this::connect);

    public Client(Listener listener) {
        mListener = listener;
        mWorker.execute(this::connect);
    }

    /** Has an attached device judged, now and by every daemon to come until it is detached. */
    public void attached(DeviceInfo device) {
        mWorker.execute(() -> {
            mAttached.put(keyOf(device), device);
            ask(device);
        });
    }

    /** Has the daemon forget a device that has gone. */
    public void detached(DeviceInfo device) {
        mWorker.execute(() -> {
            if (mAttached.remove(keyOf(device)) != null) forget(device);
        });
    }

    /** Ends the client when all that was asked of it is done; while there is a daemon. */
    public void stop() {
        mWorker.execute(this::disconnect);
        mWorker.shutdown();
    }

    /** What the platform knows of a USB device; hubs are not asked about. */
    public static DeviceInfo recordOf(UsbDevice device) {
        DeviceInfo record = emptyRecord();
        record.deviceType = TYPE_USB;
        // Bus number * 1000 + device number, by which the daemon finds it in sysfs.
        record.deviceId = device.getDeviceId();
        record.deviceName = textOf(device.getProductName());
        record.deviceClass = device.getDeviceClass();
        record.vendorId = device.getVendorId();
        record.productId = device.getProductId();
        record.interfaceClasses = interfaceClassesOf(device);
        return record;
    }

    /** What the platform knows of an input device behind USB. */
    public static DeviceInfo recordOf(InputDevice device) {
        DeviceInfo record = emptyRecord();
        record.deviceType = TYPE_INPUT;
        record.deviceId = device.getId();
        record.deviceName = textOf(device.getName());
        record.deviceClass = device.getSources();
        record.vendorId = device.getVendorId();
        record.productId = device.getProductId();
        return record;
    }

    // Nothing in a record may be null: the daemon answers that with a NullPointerException.
    private static DeviceInfo emptyRecord() {
        DeviceInfo record = new DeviceInfo();
        record.deviceName = "";
        record.interfaceClasses = new int[0];
        record.reason = "";
        record.categoryPath = "";
        return record;
    }

    private static String textOf(String text) {
        return text == null ? "" : text;
    }

    // One for each interface of the configuration in use, which is the first one unless somebody
    // has chosen another.
    private static int[] interfaceClassesOf(UsbDevice device) {
        if (device.getConfigurationCount() == 0) return new int[0];
        UsbConfiguration configuration = device.getConfiguration(0);
        int[] classes = new int[configuration.getInterfaceCount()];
        int count = 0;
        for (int i = 0; i < classes.length; i++) {
            UsbInterface candidate = configuration.getInterface(i);
            // The platform lists an interface once more for each further setting that it has.
            if (candidate.getAlternateSetting() != 0) continue;
            classes[count++] = candidate.getInterfaceClass();
        }
        return Arrays.copyOf(classes, count);
    }

    // USB devices and input devices are counted each on their own.
    private static String keyOf(DeviceInfo device) {
        return device.deviceType + ":" + device.deviceId;
    }

    private void connect() {
        mBinder = ServiceManager.waitForService(SERVICE_NAME);
        mService = IKUsbService.Stub.asInterface(mBinder);
        if (mBinder == null) {
            Log.e(TAG, "May not find " + SERVICE_NAME);
            return;
        }
        try {
            mBinder.linkToDeath(mDeath, 0);
        } catch (RemoteException e) {
            // It died meanwhile, and there will be no notice.
            mWorker.execute(this::connect);
            return;
        }
        begin();
    }

    // A daemon that was started anew knows neither callbacks nor devices: it is told all of both.
    private void begin() {
        try {
            // First, so that no device is judged unheard.
            mService.registerKusCallback(mCallback);
        } catch (RemoteException e) {
            Log.w(TAG, "Died again: the notice is on its way", e);
            return;
        }
        for (DeviceInfo device : mAttached.values()) ask(device);
    }

    private void ask(DeviceInfo device) {
        boolean allowed = false;
        try {
            allowed = mService != null && mService.isDeviceAllowed(device);
        } catch (RemoteException | RuntimeException e) {
            // Dead, or it does not take such a record.
            Log.w(TAG, "No answer about " + device.deviceName, e);
        }
        mListener.onVerdict(device, allowed);
    }

    private void forget(DeviceInfo device) {
        if (mService == null) return;
        try {
            mService.updateDeviceList(device, STATUS_REMOVED);
        } catch (RemoteException | RuntimeException e) {
            Log.w(TAG, "Cannot have it forgotten: " + device.deviceName, e);
        }
    }

    private void disconnect() {
        if (mService == null) return;
        mBinder.unlinkToDeath(mDeath, 0);
        try {
            mService.unregisterKusCallback(mCallback);
        } catch (RemoteException e) {
            Log.w(TAG, "Unregistered with the daemon's end", e);
        }
    }
}
