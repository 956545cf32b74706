package android.kus;
interface IKUsbServiceCallback {
  void onDeviceAdded(in android.kus.DeviceInfo device);
  void onDeviceRemoved(in android.kus.DeviceInfo device);
}
