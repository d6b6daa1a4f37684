// Placeholders of the inner routines of the elimination, so that the library
// links while the routines are written.  Each routine that is written is
// removed from here.  This file goes away when the elimination is complete.
#include "elimination/bump.h"
#include "runtime/messages.h"

namespace vlu {

namespace {
void Not_Yet(Bump_State &s, const char *name) {
  Doc(s.vmi, "%s is not available in this build.", name);
  Internal_Error(s.vmi, 3899, true);
}
}  // namespace

void Store_col_in_c_list(Bump_State &s, int32_t icol, int32_t ncnt) {
  (void)icol;
  (void)ncnt;
  Not_Yet(s, "Store_col_in_c_list");
}
void Store_Row_in_C_List(Bump_State &s, int32_t irow, int32_t ncnt) {
  (void)irow;
  (void)ncnt;
  Not_Yet(s, "Store_Row_in_C_List");
}
void Store_col_in_M_list(Bump_State &s, int32_t icol, int32_t m) {
  (void)icol;
  (void)m;
  Not_Yet(s, "Store_col_in_M_list");
}
void Store_Row_in_M_List(Bump_State &s, int32_t irow) {
  (void)irow;
  Not_Yet(s, "Store_Row_in_M_List");
}
void Remove_col_from_list(Bump_State &s, int32_t icol) {
  (void)icol;
  Not_Yet(s, "Remove_col_from_list");
}
void Remove_Row_from_List(Bump_State &s, int32_t irow) {
  (void)irow;
  Not_Yet(s, "Remove_Row_from_List");
}
void Remove_col_from_C_head(Bump_State &s, int32_t icol, int32_t cnt) {
  (void)icol;
  (void)cnt;
  Not_Yet(s, "Remove_col_from_C_head");
}
void Remove_Row_from_C_Head(Bump_State &s, int32_t irow, int32_t cnt) {
  (void)irow;
  (void)cnt;
  Not_Yet(s, "Remove_Row_from_C_Head");
}
void Remove_col_from_M_head(Bump_State &s, int32_t icol, int32_t m) {
  (void)icol;
  (void)m;
  Not_Yet(s, "Remove_col_from_M_head");
}
void CLEAR_Clok(Bump_State &s, int32_t icol, int32_t clength) {
  (void)icol;
  (void)clength;
  Not_Yet(s, "CLEAR_Clok");
}
void Increase_Stmc(Bump_State &s) {
  Not_Yet(s, "Increase_Stmc");
}
void Set_Pivot_Position(Bump_State &s) {
  Not_Yet(s, "Set_Pivot_Position");
}
void Unlink_Row(Bump_State &s, int32_t irow) {
  (void)irow;
  Not_Yet(s, "Unlink_Row");
}
void Unlink_Col(Bump_State &s, int32_t icol) {
  (void)icol;
  Not_Yet(s, "Unlink_Col");
}
void Link_Row_Last(Bump_State &s, int32_t irow) {
  (void)irow;
  Not_Yet(s, "Link_Row_Last");
}
void Link_Col_Last(Bump_State &s, int32_t icol) {
  (void)icol;
  Not_Yet(s, "Link_Col_Last");
}
int32_t Row_Extra(const Bump_State &s, int32_t irow) {
  (void)irow;
  (void)s;
  return 0;
}
int32_t Col_Extra(const Bump_State &s, int32_t icol) {
  (void)icol;
  (void)s;
  return 0;
}
bool Long_col(Bump_State &s, int32_t icol) {
  (void)icol;
  Not_Yet(s, "Long_col");
  return false;
}
bool Long_row(Bump_State &s, int32_t irow) {
  (void)irow;
  Not_Yet(s, "Long_row");
  return false;
}
void Col_to_top(Bump_State &s, int32_t icol, int32_t iextra) {
  (void)icol;
  (void)iextra;
  Not_Yet(s, "Col_to_top");
}
void Row_to_top(Bump_State &s, int32_t irow, int32_t iextra) {
  (void)irow;
  (void)iextra;
  Not_Yet(s, "Row_to_top");
}
void Make_Col_Space(Bump_State &s, int32_t icol, int32_t needed) {
  (void)icol;
  (void)needed;
  Not_Yet(s, "Make_Col_Space");
}
void Make_Row_Space(Bump_State &s, int32_t irow, int32_t needed) {
  (void)irow;
  (void)needed;
  Not_Yet(s, "Make_Row_Space");
}
void Compres_Rows(Bump_State &s) {
  Not_Yet(s, "Compres_Rows");
}
void Compres_Cols(Bump_State &s) {
  Not_Yet(s, "Compres_Cols");
}
void Compres_Uncompressed_Row(Bump_State &s, int32_t irow) {
  (void)irow;
  Not_Yet(s, "Compres_Uncompressed_Row");
}
void Compres_Uncompressed_Col(Bump_State &s, int32_t icol) {
  (void)icol;
  Not_Yet(s, "Compres_Uncompressed_Col");
}
void Do_Extra_Compression(Bump_State &s, int32_t start) {
  (void)start;
  Not_Yet(s, "Do_Extra_Compression");
}
void Store_ele_in_both(Bump_State &s, int32_t irow, int32_t icol, double value, bool compr) {
  (void)irow;
  (void)icol;
  (void)value;
  (void)compr;
  Not_Yet(s, "Store_ele_in_both");
}
void Remove_Element_From_Row(Bump_State &s, int32_t irow, int32_t p) {
  (void)irow;
  (void)p;
  Not_Yet(s, "Remove_Element_From_Row");
}
void Remove_Element_From_Col(Bump_State &s, int32_t icol, int32_t q) {
  (void)icol;
  (void)q;
  Not_Yet(s, "Remove_Element_From_Col");
}
int32_t Find_Element(Bump_State &s, int32_t irow, int32_t icol) {
  (void)irow;
  (void)icol;
  Not_Yet(s, "Find_Element");
  return 0;
}
void LU_Space(Bump_State &s) {
  Not_Yet(s, "LU_Space");
}
void Assign_Mmat(Bump_State &s, int32_t &mr, int32_t &mc) {
  (void)mr;
  (void)mc;
  Not_Yet(s, "Assign_Mmat");
}
void Define_Mmat_Rows(Bump_State &s) {
  Not_Yet(s, "Define_Mmat_Rows");
}
void Increase_Mmat(Bump_State &s, int32_t needed) {
  (void)needed;
  Not_Yet(s, "Increase_Mmat");
}
void Increase_Mmat_Lists(Bump_State &s) {
  Not_Yet(s, "Increase_Mmat_Lists");
}
void Select_Pivot(Bump_State &s) {
  Not_Yet(s, "Select_Pivot");
}
void Scan_Col_for_m(Bump_State &s, int32_t icol, int32_t &mact_new, int32_t &mlow_new) {
  (void)icol;
  (void)mact_new;
  (void)mlow_new;
  Not_Yet(s, "Scan_Col_for_m");
}
void Scan_Row_for_M(Bump_State &s, int32_t irow, int32_t cnt1, int32_t &mrow_min) {
  (void)irow;
  (void)cnt1;
  (void)mrow_min;
  Not_Yet(s, "Scan_Row_for_M");
}
void Test_Mcount(Bump_State &s, int32_t m1, int32_t m2, bool &found) {
  (void)m1;
  (void)m2;
  (void)found;
  Not_Yet(s, "Test_Mcount");
}
void Test_Pivot(Bump_State &s, double umax, double &pivot) {
  (void)umax;
  (void)pivot;
  Not_Yet(s, "Test_Pivot");
}
void Select_Pivot_Dense(Bump_State &s) {
  Not_Yet(s, "Select_Pivot_Dense");
}
void Select_Pivot_D(Bump_State &s) {
  Not_Yet(s, "Select_Pivot_D");
}
void Switch_to_Semi_Dense(Bump_State &s, int32_t indx) {
  (void)indx;
  Not_Yet(s, "Switch_to_Semi_Dense");
}
void Increase_MarkHigh(Bump_State &s, int32_t m) {
  (void)m;
  Not_Yet(s, "Increase_MarkHigh");
}
void Stat_Switch_Check(Bump_State &s) {
  Not_Yet(s, "Stat_Switch_Check");
}
void Row_Singleton_Pivot(Bump_State &s) {
  Not_Yet(s, "Row_Singleton_Pivot");
}
void Col_Singleton_Pivot(Bump_State &s) {
  Not_Yet(s, "Col_Singleton_Pivot");
}
void Store_L_Column(Bump_State &s, double pivot) {
  (void)pivot;
  Not_Yet(s, "Store_L_Column");
}
void General_Pivot(Bump_State &s, int32_t mr, int32_t mc) {
  (void)mr;
  (void)mc;
  Not_Yet(s, "General_Pivot");
}
void Update_Col_Info(Bump_State &s, int32_t icol, int32_t ocnt, int32_t mlow_new) {
  (void)icol;
  (void)ocnt;
  (void)mlow_new;
  Not_Yet(s, "Update_Col_Info");
}
void Rescan_row_for_m(Bump_State &s, int32_t irow, int32_t ocnt, int32_t skipE, int32_t skipC) {
  (void)irow;
  (void)ocnt;
  (void)skipE;
  (void)skipC;
  Not_Yet(s, "Rescan_row_for_m");
}
void Compress_Short_Lists(Bump_State &s, int32_t c1, int32_t c2, int32_t r1, int32_t r2) {
  (void)c1;
  (void)c2;
  (void)r1;
  (void)r2;
  Not_Yet(s, "Compress_Short_Lists");
}
void Update_Amat(Bump_State &s, int32_t first, int32_t nrow, int32_t ncol, int32_t ld) {
  (void)first;
  (void)nrow;
  (void)ncol;
  (void)ld;
  Not_Yet(s, "Update_Amat");
}
void Inversion_Tests(Bump_State &s) {
  Not_Yet(s, "Inversion_Tests");
}
void Test_Row_Col_Structure(Bump_State &s, const char *where) {
  (void)where;
  Not_Yet(s, "Test_Row_Col_Structure");
}

}  // namespace vlu
