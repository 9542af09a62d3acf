#include "support/expected_points.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace encap_test {
namespace {

struct Row {
  std::uint32_t id;
  char category;        // e error, v event, i init
  const char *message;  // @ stands for the function
  const char *values;
  const char *function = nullptr;  // that of the row before
};

#define NH_FIELDS "out_label1 %d, te_local_label %d, is_failover_nh %d, is_l2vpn_pref_path %d, protocol %d"
#define KEY_FIELDS                                                                      \
  "out_label1 %d, out_label2 %d, out_label3 %d, te_local_label %d, is_failover_nh %d, " \
  "is_l2vpn_pref_path %d, protocol %d, ifh 0x%x"
#define TUN_FIELDS "out_label2 %d, out_label3 %d, ifh 0x%x"
#define NH_RANGE "@ NH index %d out of range, rc 0x%x, " NH_FIELDS
#define TUN_MISSING                                                                                         \
  "@ vrl_find_mpls_tunnel_entry failed: out_label1 %d, out_label2 %d, out_label3  %d, te_local_label  %d, " \
  "is_failover_nh %d, is_l2vpn_pref_path %d, protocol %d, ifh 0x%x NH %d, Tunnel %d, seed_nh %d, "          \
  "is_protected_te_nh %d"
#define NH_REMOVAL "@ vrl_delete_mpls_nh_entry failed: " NH_FIELDS ", NH %d, Tunnel %d, rc 0x%x"
#define FINAL "@ Failedrc_nh 0x%x, rc_tun 0x%x, rc 0x%x"
#define NH "l1 te fo l2vpn proto"
#define TUN "l2 l3 ifh"
#define KEY "l1 l2 l3 te fo l2vpn proto ifh"

constexpr Row kRows[] = {
    {0, 'e', "@ failed as the nodes passed are NULL, ", "", "vrl_mpls_tunnel_key_compare"},
    {1, 'e', "@ failed as the nodes passed are NULL, ", "", "vrl_mpls_nh_key_compare"},
    {2, 'v', "@ key: Key : ifh 0x%x, out_label2 %d, out_label3 %d, Result %d", "ifh l2 l3 result",
     "vrl_find_mpls_tunnel_entry"},
    {3, 'v', "@ Key: out_label1 %d, te_local_label %d, is_failover_nh %d, protocol %d,is_l2vpn_pref_path %d, Result %d",
     "l1 te fo proto l2vpn result", "vrl_find_mpls_nh_entry"},
    {4, 'v', "@ " TUN_FIELDS, TUN, "vrl_insert_mpls_tunnel_entry"},
    {5, 'e', "@ Malloc failed, Key : " TUN_FIELDS, TUN},
    {6, 'e', "@ Insert failed, Key : " TUN_FIELDS, TUN},
    {7, 'v', "@ return rc %d", "0"},
    {8, 'v', "@ entered, Key : out_label1 %d, te_local_label %d is_failover_nh %d,is_l2vpn_pref_path %d, protocol %d",
     NH, "vrl_insert_mpls_nh_entry"},
    {9, 'e',
     "@ Malloc failed, Key : out_label1 %d, te_local_label %d is_failover_nh %d, is_l2vpn_pref_path %d,  "
     "protocol %d",
     NH},
    {10, 'e',
     "@ Insert failed, Key : out_label1 %d te_local_label %dis_failover_nh %d, is_l2vpn_pref_path %d,  protocol %d",
     NH},
    {11, 'v', "@ return rc %d", "0"},
    {12, 'v', "@ Key: " TUN_FIELDS, TUN, "vrl_delete_mpls_tunnel_entry"},
    {13, 'e', "@ Delete fail Key : " TUN_FIELDS, TUN},
    {14, 'v', "@ return rc %d", "0"},
    {15, 'v', "@ Key " NH_FIELDS, NH, "vrl_delete_mpls_nh_entry"},
    {16, 'e',
     "@ delete failed, Key : out_label1 %d, te_local_label %d is_failover_nh %d, is_l2vpn_pref_path %d, "
     "protocol %d",
     NH},
    {17, 'v', "@ return rc %d", "0"},
    {18, 'v', "@ validNH index %d refcount %d", "nh count", "vrl_mem_increment_egr_nh_ref_count"},
    {19, 'e', "@ valid not set forNH %d, refcount %d", "nh count"},
    {20, 'v', "@ valid tunnel if %d tun index %d refcount %d", "tun slot count",
     "vrl_mem_increment_egr_tunnel_ref_count"},
    {21, 'e', "@ invalid tunnel if %d tun index %d refcount %d", "tun slot count"},
    {22, 'v',
     "@ egr_tun %d, nh_index %d, out_label1 %d, te_local_label %d, is_failover_nh %d,  is_l2vpn_pref_path %d, "
     "protocol %d, ifh 0x%x is_protected_te_nh %d, failover_id %d, failover_nh %d",
     "tun nh l1 te fo l2vpn proto ifh prot fid fnh", "vrl_mem_set_egr_nh_data"},
    {23, 'v', "@ tunnel_if %d, out_label2.label %d, out_label3.label %d", "tun l2 l3", "vrl_mem_set_egr_tun_data"},
    {24, 'e', "@ invalidnh_index : %d", "nh", "vrl_mem_get_key_from_egr_nh"},
    {25, 'v',
     "@ NH %d, egr_tun %d, tun_idx %d, out_label1 %d, out_label2 %d, label3 %d, te_local_label %d, "
     "is_failover_nh %d,  is_l2vpn_pref_path %d, protocol %d, ifh 0x%x, seed_nh %d, is_protected_te_nh %d, "
     "failover_id %d failover_nh %d",
     "nh tun slot " KEY " seed prot fid fnh"},
    {26, 'e', "@ nh_index : %d, nh_ref went -ve, %d", "nh count", "vrl_mem_decrement_egr_nh_ref_count"},
    {27, 'e', "@ invalidnh_index : %d, nh_ref %d", "nh count"},
    {28, 'v', "@ NH index %d refcount %d,del : %d", "nh count del"},
    {29, 'e', "@ tunnel_if : %d, tun_ref went -ve, %d", "tun count", "vrl_mem_decrement_egr_tunnel_ref_count"},
    {30, 'e', "@ invalid, tunnel_if : %d, tun_ref %d, ", "tun count"},
    {31, 'v', "@ tun index %d refcount %d, del : %d", "tun count del"},
    {32, 'e', "@ out of range nh_index %d", "nh", "vrl_can_delete_egr_nh_data_from_encap_db"},
    {33, 'e', "@ nh in encap-db_nh_info_array is invalid nh_index : %d, nh_ref_count %d", "nh count"},
    {34, 'v', "@ nh_index %d", "nh"},
    {35, 'v', "@ " KEY_FIELDS, KEY, "vrl_find_and_share_egress_encap"},
    {36, 'e', "@ Lock Failed:0x%x", "rc"},
    {37, 'v', "@ tun found : %d", "tun"},
    {38, 'v', "@ Nh found : %d", "nh"},
    {39, 'e', "@ unlock Failed:0x%x", "rc"},
    {40, 'v', "@ return rc %d egr_nh_found %d egr_tun_found %d egr_nh %d egr_tun %d ", "0 nhf tunf nh tun"},
    {41, 'e', "@ Lock Failed ! :0x%x", "rc", "vrl_find_egress_encap"},
    {42, 'v', "@ tun found : %d", "tun"},
    {43, 'v', "@ Nh found : %d", "nh"},
    {44, 'e', "@ unlock Failed ! :0x%x", "rc"},
    {45, 'v', "@ return rc %d egr_nh found %d egr_tun_found %d egr_nh %d egr_tun %d ", "0 nhf tunf nh tun"},
    {46, 'e', "@ out of range nh %d", "nh", "vrl_find_and_share_egress_nh"},
    {47, 'e', "@ Lock Failed ! :0x%x", "rc"},
    {48, 'e', "@ unlock Failed ! :0x%x", "rc"},
    {49, 'v', "vrl_find_and_share_egr_nh return rc %d egr_nh %d", "0 nh"},
    {50, 'v',
     "@ " KEY_FIELDS
     ", tun_found %d, nh_found %d, egr_nh %d, egr_tun %d, is_protected_te_nh %dfailover_id %d, failover_nh %d",
     KEY " tunf nhf nh tun prot fid fnh", "vrl_insert_egress_encap"},
    {51, 'e', "@ tunnel index %d out of range rc: 0x%x, " KEY_FIELDS, "tun 0 " KEY},
    {52, 'e', NH_RANGE, "nh 0 " NH},
    {53, 'e', "@ unlock failed! :0x%x", "rc"},
    {54, 'e', "@ unlock Fail :0x%x", "rc"},
    {55, 'e', "@ unlock Fail :0x%x", "rc"},
    {56, 'e', "@ unlock Fail :0x%x", "rc"},
    {57, 'e', "@ unlock Fail :0x%x", "rc"},
    {58, 'e', NH_RANGE, "nh 0 " NH},
    {59, 'e', "@ unlock failed! :0x%x", "rc"},
    {60, 'e', "@ unlock Fail:0x%x", "rc"},
    {61, 'e', "@ Tunnel cant be null " KEY_FIELDS, KEY},
    {62, 'e', "@ vrl_insert_mpls_nh_entry failed, " NH_FIELDS ", rc 0x%x", NH " rc"},
    {63, 'e', "@ unlock Failafter insert MPLS NH entry :0x%x", "rc"},
    {64, 'v', "@ Case 2 Insert: Inserted NH entry %d", "nh"},
    {65, 'e', "@ unlock Fail after increment egr NH ref count :0x%x", "rc"},
    {66, 'e', "@ unlock Fail after increment egr tunnel ref count :0x%x", "rc"},
    {67, 'e', "@ unlock Failed :0x%x", "rc"},
    {68, 'v', "@ return rc %d", "0"},
    {69, 'e', "@ out of range nh_index %d", "nh", "vrl_update_egr_nh_data_in_encap_db"},
    {70, 'v', "@ nh_index %d, seed_nh %d, is_protected_te_nh: %d, failover_id: %d, failover_nh %d",
     "nh seed prot fid fnh"},
    {71, 'e', "@ nh in encap-db_nh_info_array is invalid nh_index : %d, nh_ref_count %d", "nh count"},
    {72, 'e', "out of range nh %d", "nh", "vrl_get_encap_key_and_aux_data_from_nh"},
    {73, 'e', "@ Lock Failed ! :0x%x", "rc"},
    {74, 'e', "EGR NH not valid %d", "nh"},
    {75, 'e', "@ Failed ! :0x%x", "rc"},
    {76, 'e', "@ out of range nh %d", "nh", "vrl_find_and_set_egress_nh_ref"},
    {77, 'e', "@ Lock Failed ! :0x%x", "rc"},
    {78, 'v', "@ validNH index %d old_ref %d new refcount %d", "nh old count"},
    {79, 'e', "@ valid not set forNH %d, existing refcount %d failed update ref count %d", "nh old count"},
    {80, 'e', "@ unlock Fail :0x%x", "rc"},
    {81, 'e', "@ Invalid Param  ", "", "vrl_egress_encap_nh_insert_attach"},
    {82, 'e', "@ insert Fail :0x%x, nh %d ", "rc nh"},
    {83, 'e', "@ ref_cnt %d set failed nh %d rc:0x%x", "count nh rc"},
    {84, 'v', "@ nh_index %d, node inserted successfully!", "nh"},
    {85, 'e', "@ out of range nh %d", "nh", "vrl_egress_encap_nh_detach"},
    {86, 'e', "@ Lock Failed ! :0x%x", "rc"},
    {87, 'e', "@: EGR NH not valid %d", "nh"},
    {88, 'e', nullptr, nullptr},
    {89, 'v', "@, " KEY_FIELDS ", NH %d, Tunnel %d, seed_nh %d, is_protected_te_nh %d", KEY " nh tun seed prot"},
    {90, 'e', TUN_MISSING, KEY " nh tun seed prot"},
    {91, 'e', NH_REMOVAL, NH " nh tun rc"},
    {92, 'v', "@: Tunnel %d, tun_to_del_from_edb %d tun_to_del_from_prm %d", "tun edb prm"},
    {93, 'e', "@: Failed to delete tunnel %d with out_label2 %d out_label3 %d ifh 0x%x rc:0x%x", "tun " TUN " rc"},
    {94, 'v', "@ return rc %d", "0"},
    {95, 'e', "@ unlock Failed ! :0x%x", "rc"},
    {96, 'e', FINAL, "rc_nh rc_tun rc"},
    {97, 'e', "out of range nh %d", "nh", "vrl_delete_and_free_egress_encap_with_nh_key"},
    {98, 'e', "@ Lock Failed ! :0x%x", "rc"},
    {99, 'e', "@: EGR NH not valid %d", "nh"},
    {100, 'v', "@, " KEY_FIELDS ", NH %d, Tunnel %d, nh_to_del %d, seed_nh %d, is_protected_te_nh %d",
     KEY " nh tun del seed prot"},
    {101, 'v',
     "@, out_label1 %d, out_label2 %d, out_label3 %d, te_local_label %d, is_failover_nh %d,is_l2vpn_pref_path %d, "
     "protocol %d, ifh 0x%x, NH %d, Tunnel %d, nh_to_del %d, tun_to_del_from_edb %d, seed_nh %d, "
     "is_protected_te_nh %d",
     KEY " nh tun del edb seed prot"},
    {102, 'e', TUN_MISSING, KEY " nh tun seed prot"},
    {103, 'e', NH_REMOVAL, NH " nh tun rc"},
    {104, 'v', "@: Tunnel %d, tun_to_del_from_edb %d tun_to_del_from_prm %d", "tun edb prm"},
    {105, 'e', "@ Failed to delete tunnel %d with out_label2 %d out_label3 %d ifh 0x%x rc:0x%x", "tun " TUN " rc"},
    {106, 'v', "@ return rc %d", "0"},
    {107, 'e', "@ unlock Failed ! :0x%x", "rc"},
    {108, 'e', FINAL, "rc_nh rc_tun rc"},
    {109, 'i', "@ Tunnel_size %d", "slots", "mpls_egress_encap_init_tunnel_array"},
    {110, 'i', "@ return rc 0x%x", "rc"},
    {111, 'i', "@ ,nh_size %d", "nh_size", "mpls_egress_encap_init_nh_array"},
    {112, 'i', "@ return rc 0x%x", "rc"},
    {113, 'i', "@", "", "mpls_egress_encap_dbg_init"},
    {114, 'i', "@", "", "mpls_egress_encap_db_init"},
    {115, 'i', "@ Initializing egress encap lib,shm_id %d,nh_start %d, nh_end %d,tun_start %d,tun_end %d",
     "shm_id nh_start nh_end tun_start tun_end"},
    {116, 'e', "@NH Init Failed ! :0x%x", "rc"},
    {117, 'e', "@ Tun Init Failed ! :0x%x", "rc"},
    {118, 'e', "@ Lock Init Failed ! :0x%x", "rc"},
    {119, 'i', "@ Init Success :0x%x", "0"}};

ExpectedPoint point_of(const std::string &function, const Row &row) {
  static constexpr std::array kUntraced = {7u, 11u, 14u, 68u, 94u, 106u, 110u, 112u};
  ExpectedPoint point{row.id,
                      static_cast<std::uint8_t>(row.category == 'e'   ? 0
                                                : row.category == 'v' ? 1
                                                                      : 2),
                      std::find(kUntraced.begin(), kUntraced.end(), row.id) == kUntraced.end(),
                      function,
                      row.message ? row.message : "",
                      {}};
  if (const auto at = point.message.find('@'); at != std::string::npos) {
    point.message.replace(at, 1, function);
  }
  std::istringstream names(row.values ? row.values : "");
  for (std::string name; names >> name;) {
    point.values.push_back(name);
  }
  return point;
}

}  // namespace

const std::vector<ExpectedPoint> &expected_points() {
  static const std::vector<ExpectedPoint> points = [] {
    std::vector<ExpectedPoint> all;
    const char *function = nullptr;
    for (const Row &row : kRows) {
      function = row.function != nullptr ? row.function : function;
      all.push_back(point_of(function, row));
    }
    return all;
  }();
  return points;
}

std::string join_pieces(const std::string &stored) {
  std::string joined;
  for (std::size_t at = 0; at < stored.size();) {
    const std::size_t close = stored.find('"', at + 1);
    if (stored[at] != '"' || close == std::string::npos) {
      return "";
    }
    joined += stored.substr(at + 1, close - at - 1);
    at = close + 1;
    if (at < stored.size() && (stored[at] != ' ' || ++at == stored.size())) {
      return "";
    }
  }
  return joined;
}

std::size_t conversions(const std::string &format) {
  return static_cast<std::size_t>(std::count(format.begin(), format.end(), '%'));
}

}  // namespace encap_test
